// What the tests of tarnctl share: it is run as its user runs it, and its two outputs are read apart.
#pragma once

#include "support.h"

#include <algorithm>
#include <string>
#include <vector>

namespace tarnctl_test
{

inline constexpr char program[] = TARN_BINARY_DIR "/tarnctl";

struct run_result
{
    int status = -1;
    std::string out;
    std::string err;
};

/** Starts it with its errors in a file; output is read from the process. */
inline support::child_process start(const std::vector<std::string> &arguments,
                                    const std::string &error_file)
{
    std::vector<std::string> argv = {"/bin/sh", "-c", "exec \"$@\" 2>" + error_file, "sh", program};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return support::child_process::program(argv);
}

inline run_result run(const std::vector<std::string> &arguments)
{
    const support::temp_dir dir;
    auto child = start(arguments, dir.file("err"));
    child.close_input();
    run_result made;
    made.out = child.read_rest(120000);
    made.status = child.wait(60000);
    made.err = support::read_file(dir.file("err"));
    return made;
}

inline bool has(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

/** It succeeds and says nothing but its results. */
inline std::string expect_ok(const std::vector<std::string> &arguments)
{
    const run_result made = run(arguments);
    EXPECT_EQ(made.status, 0) << made.err;
    EXPECT_EQ(made.err, "");
    return made.out;
}

/** It ends with a status and one line of error, which holds all these texts. */
inline run_result expect_error(int status, const std::vector<std::string> &arguments,
                               const std::vector<std::string> &texts)
{
    const run_result made = run(arguments);
    std::string line = "tarnctl";
    for (const std::string &argument : arguments)
    {
        line += " '" + argument + "'";
    }
    EXPECT_EQ(made.status, status) << line << "\n" << made.err;
    EXPECT_EQ(std::count(made.err.begin(), made.err.end(), '\n'), 1) << line << "\n" << made.err;
    EXPECT_TRUE(made.err.starts_with("tarnctl")) << made.err;
    for (const std::string &text : texts)
    {
        EXPECT_TRUE(has(made.err, text)) << line << ": no '" << text << "' in\n" << made.err;
    }
    if (status == 2)
    {
        EXPECT_EQ(made.out, "") << line;
    }
    return made;
}

/** Evaluates a Python expression of the JSON values that a text holds, one per line: "v" is the
 *  first, "all" their list. @return its text */
inline std::string json_value(const std::string &text, const std::string &expression)
{
    auto python = support::child_process::program(
        {"/usr/bin/env", "python3", "-c",
         "import json, sys\nall = [json.loads(line) for line in sys.stdin]\nv = all[0]\nprint(" +
             expression + ")"});
    EXPECT_TRUE(python.write_line(text.substr(0, text.find_last_not_of('\n') + 1)));
    python.close_input();
    std::string answer = python.read_rest(60000);
    EXPECT_EQ(python.wait(), 0) << text << "\n" << answer;
    answer.erase(answer.find_last_not_of('\n') + 1);
    return answer;
}

} // namespace tarnctl_test
