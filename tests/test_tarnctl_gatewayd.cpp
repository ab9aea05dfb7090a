// tarnctl and gatewayd together, both as processes: what one sets by any way the other shows by all.

#include "gatewayd_support.h"
#include "tarnctl_support.h"

using namespace tarnctl_test;

TEST(TarnctlGatewayd, PointsAndFilesPassByEveryWay)
{
    const gatewayd_test::instance self;
    const support::temp_dir dir;
    const std::string set = dir.file("set");
    const std::string spool = dir.file("spool");
    std::filesystem::create_directory(spool);
    (void)expect_ok({"tls", "init", set});
    const std::string tls = "--tls-dir=" + set;
    const std::string port = std::to_string(support::free_port());
    const std::string tcp = "127.0.0.1:" + port;
    const std::string local = "local:" + self.name() + ".rpc";
    auto daemon = gatewayd_test::start_running(
        self, {"--rpc-port=" + port, tls, "--local=" + self.name() + ".rpc", "--spool=" + spool});

    EXPECT_EQ(expect_ok({"rpc", "call", tcp, tls, "1002", "1:string=a/tls", "2:double=1.5"}),
              "code 0\n");
    EXPECT_EQ(expect_ok({"rpc", "call", local, "1002", "1:string=a/local", "2:double=2.5"}),
              "code 0\n");
    EXPECT_EQ(expect_ok({"ipc", "call", self.name(), "3", "string=a/ipc", "double=-3.5"}),
              "code 0\n");
    const std::string chosen = "sorted((p['name'], p['value']) for p in v['points'] if "
                               "p['name'].startswith('a/'))";
    const std::string points = "[('a/ipc', -3.5), ('a/local', 2.5), ('a/tls', 1.5)]";
    EXPECT_EQ(json_value(expect_ok({"points", "watch", self.name(), "--once", "--json"}), chosen),
              points);
    const std::string list = expect_ok({"rpc", "call", local, "1003", "--json"});
    EXPECT_EQ(json_value(list,
                         "sorted((o['elements'][0]['value'], o['elements'][1]['value']) for o "
                         "in v['elements'][0]['elements'] if "
                         "o['elements'][0]['value'].startswith('a/'))"),
              points);
    EXPECT_TRUE(expect_ok({"rpc", "call", tcp, tls, "1001", "1:string=a/ipc"})
                    .starts_with("code 0\n2 double -3.5\n3 uint64 "));
    EXPECT_TRUE(expect_ok({"ipc", "call", self.name(), "2", "string=a/tls"})
                    .starts_with("code 0\ndouble 1.5\nuint64 "));
    (void)expect_error(1, {"rpc", "call", tcp, tls, "1001", "1:string=none"}, {"code -2"});
    (void)expect_error(1, {"rpc", "call", tcp, tls, "1002", "1:string=a b", "2:double=1"},
                       {"code -3"});
    EXPECT_TRUE(has(expect_ok({"rpc", "ping", tcp, tls, "--count=2", "--interval=0"}), "0% lost"));

    support::write_file(dir.file("file.txt"), "content of a file");
    EXPECT_TRUE(has(expect_ok({"rpc", "send", dir.file("file.txt"), tcp, tls}), "file.txt"));
    EXPECT_EQ(support::read_file(spool + "/file.txt"), "content of a file");
    (void)expect_error(1, {"rpc", "send", dir.file("file.txt"), local, "../evil"}, {"refuses"});
    EXPECT_TRUE(has(expect_ok({"shm", "info", self.name()}), "heap"));
    gatewayd_test::expect_orderly_end(daemon);
}
