// tarnctl's credentials: a set is made, kept and shown, and whatever a file holds is survived.

#include "tarnctl_support.h"

#include <filesystem>

#include <sys/stat.h>

using namespace tarnctl_test;

namespace
{

mode_t mode_of(const std::string &path)
{
    struct stat status = {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 0777;
}

} // namespace

TEST(TarnctlTls, CredentialsAreMadeOnceAndShown)
{
    const support::temp_dir dir;
    const std::string set = dir.file("a/set");
    EXPECT_TRUE(has(expect_ok({"tls", "init", set, "--cn", "gw.test", "--days=30"}), "gw.test"));
    EXPECT_EQ(mode_of(set), 0700u);
    EXPECT_EQ(mode_of(set + "/secret"), 0600u);
    EXPECT_EQ(mode_of(set + "/server.key"), 0600u);
    const std::string secret = support::read_file(set + "/secret");
    EXPECT_EQ(secret.find('\n'), secret.size() - 1);
    EXPECT_GE(secret.size(), 33u);
    std::vector<std::string> files;
    for (const auto &entry : std::filesystem::directory_iterator(set))
    {
        files.push_back(entry.path().filename());
    }
    std::sort(files.begin(), files.end());
    EXPECT_EQ(files,
              (std::vector<std::string>{"client.cert", "client.chain", "client.key", "root.pem",
                                        "secret", "server.cert", "server.chain", "server.key"}));
    const std::string before = support::read_file(set + "/server.key");
    EXPECT_FALSE(has(before, "BEGIN"));
    (void)expect_error(1, {"tls", "init", set}, {"is there already", "--force"});
    EXPECT_EQ(support::read_file(set + "/server.key"), before);
    EXPECT_EQ(support::read_file(set + "/secret"), secret);

    const std::string shown = expect_ok({"tls", "show", set + "/server.cert"});
    for (const char *text : {"subject   CN=gw.test\n", "issuer    CN=gw.test root", "serial    ",
                             "validity  2", " UTC to 2"})
    {
        EXPECT_TRUE(has(shown, text)) << shown;
    }
    const std::string key = expect_ok({"tls", "show", set + "/server.key"});
    EXPECT_TRUE(key.starts_with("PRIVATE KEY, ")) << key;
    EXPECT_EQ(std::count(key.begin(), key.end(), '\n'), 1);
    const std::string json = expect_ok({"tls", "show", "--json", set + "/server.chain"});
    EXPECT_EQ(json_value(json, "len(v), v[0]['subject'] == v[0]['issuer'], v[0]['valid']"),
              "1 True True");
    EXPECT_EQ(json, expect_ok({"tls", "show", "--json", set + "/root.pem"}));

    EXPECT_TRUE(has(expect_ok({"tls", "init", set, "--force"}), "tarn-server"));
    EXPECT_NE(support::read_file(set + "/secret"), secret);
    (void)expect_ok({"tls", "show", set + "/client.cert"});
}

TEST(TarnctlTls, CredentialsThatAreNoneAreRefused)
{
    const support::temp_dir dir;
    const std::string file = dir.file("file");
    const std::string pem = "-----BEGIN CERTIFICATE-----\n";
    const std::string end = "\n-----END CERTIFICATE-----\n";
    (void)expect_error(1, {"tls", "init", "/proc/none"}, {"/proc/none", "choose another place"});
    (void)expect_error(1, {"rpc", "call", "127.0.0.1:1", "1000", "--tls-dir", dir.path()},
                       {"secret", "tarnctl tls init"});
    support::write_file(file, "noise");
    (void)expect_error(1, {"tls", "show", file}, {"enciphered", "--secret"});
    support::write_file(dir.file("secret"), "wrong\n");
    (void)expect_error(1, {"tls", "show", file}, {"neither", "--secret"});
    support::write_file(file, pem + "MIIB");
    (void)expect_error(1, {"tls", "show", file}, {"nothing that is whole"});
    // lengths that lead outside, a certificate that ends early, one without end
    for (const char *body :
         {"MIT/////", "MIIB", "MAIwAA==", "MIAwgAAA", "MAowCKADAgECAgEB", "!!!!"})
    {
        support::write_file(file, pem + body + end);
        EXPECT_TRUE(expect_ok({"tls", "show", file}).starts_with("CERTIFICATE, ")) << body;
        EXPECT_EQ(json_value(expect_ok({"tls", "show", "--json", file}), "v[0]['kind']"),
                  "CERTIFICATE");
    }
}
