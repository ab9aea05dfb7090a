// What the user sees: results on standard output as text, aligned tables or JSON; errors on
// standard error, one line each.
#pragma once

#include "command.h"

#include <cstdio>

namespace tarnctl
{

/** Takes standard output for the results alone: what the layer prints goes to standard error from
 *  then on. Call it first. @return false when that cannot be arranged */
[[nodiscard]] bool open_output();

/** Where results go. */
FILE *out();
/** Hands on what was written. @return false when nobody takes it any more */
bool flush_output();
/** Error number of the first vain flush; 0: none. */
int output_error();
/** Results go to a terminal. */
bool output_is_terminal();

/** What the messages begin with: "tarnctl rpc call". */
void set_message_prefix(std::string text);

/** Says what has failed and what to do. @return status_failed */
int failed(const std::string &message);
/** Says what is wrong with the command line. @return status_usage */
int wrong(const std::string &message);
/** Says something without an end. */
void note(const std::string &message);

/** Foreign text for a message: cut when long, without control characters. */
std::string shown(std::string_view text);
/** Foreign text in quotes, with escapes for what a terminal should not get. */
std::string quoted(std::string_view text);
/** The same without the quotes, with line feeds and tabs left as they are. */
std::string escaped(std::string_view text);
bool is_utf8(std::string_view text);
/** Pairs of hex digits. */
std::string hex(std::string_view bytes);
/** "12.3 MiB". */
std::string size_text(double bytes);
/** Text of an error number, in lower case words as they are. */
std::string error_text(int error);

/** Shortest text that reads back as the same number. */
std::string number_text(double value);
std::string number_text(float value);

/** Rows in columns, each as wide as its widest cell; no column behind the last one. */
class table
{
public:
    /** @param heads  a name that begins with '>' aligns its column to the right */
    explicit table(std::vector<std::string> heads);
    void add(std::vector<std::string> cells);
    void print() const;

private:
    std::vector<bool> right_;
    std::vector<std::vector<std::string>> rows_;
};

/** Writes one JSON value, commas and escapes included. */
class json
{
public:
    json &begin_object();
    json &end_object();
    json &begin_array();
    json &end_array();
    json &key(std::string_view name);
    json &text(std::string_view value); ///< has to be UTF-8; what is not becomes '?'
    json &number(uint64_t value);
    json &number(int64_t value);
    json &number(int value)
    {
        return number(int64_t{value});
    }
    json &number(uint32_t value)
    {
        return number(uint64_t{value});
    }
    json &number(double value); ///< infinities and NaN become texts
    json &number(float value);
    json &truth(bool value);
    json &null();
    /** Prints the line and begins anew. */
    void print();

private:
    void separate();
    json &raw(std::string_view text);
    template <typename Real>
    json &real(Real value);

    std::string line_;
    bool first_ = true;
};

} // namespace tarnctl
