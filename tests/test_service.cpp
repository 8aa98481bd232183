// Service wrappers, each run in a child process of its own (a wrapper that
// starts never returns): the pid file's path, content, mode, flags and lock
// as another process sees it, a second instance refused, failing callbacks'
// codes in the foreground and daemon forms, the failures before the callback,
// and an old longer pid file truncated.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "ostrel_service.h"
#include "test_util.h"

namespace {

namespace fs = std::filesystem;
int g_log_fd = -1;

// A log line as a child writes it.
std::string L(int level, const std::string &text) { return std::to_string(level) + " src/service " + text + "\n"; }

std::string read_file(const std::string &path) { return (std::stringstream() << std::ifstream(path).rdbuf()).str(); }

// Runs body in a child process that enters dir with a restrictive umask (the
// pid file's mode must not depend on it) and writes its log lines into a file
// of its own, and "= code pid" if body returns in some process.
struct Child {
    std::string log;
    pid_t pid;
    Child(const std::string &dir, const std::function<uint32_t()> &body)
        : log(dir + "." + std::to_string(++made_) + ".log"), pid(fork()) {
        if (pid != 0) return;
        g_log_fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        if (chdir(dir.c_str()) != 0) _exit(3);
        umask(077);
        ZurnGeneral_SetLogLevel(1);
        ZurnGeneral_SetLogSink([](void *, const char *, int level, const char *path, int, const char *text) {
            dprintf(g_log_fd, "%d %s %s\n", level, path, text);
        }, nullptr, ZURN_LOG_SINK_ONLY);
        const uint32_t rc = body();
        dprintf(g_log_fd, "= 0x%x %d\n", rc, getpid());
        _exit(0);
    }
    ~Child() { pid > 0 && kill(pid, SIGKILL) == 0 && waitpid(pid, nullptr, 0), unlink(log.c_str()); }
    std::string got() const { return "\n" + read_file(log); }
    // The rest of the line that begins with prefix, once there is one.
    std::string after(const std::string &prefix) const {
        if (!tgtest::eventually([&] { return got().find("\n" + prefix) != std::string::npos; }, 30)) return "?";
        const std::string all = got();
        const size_t at = all.find("\n" + prefix) + prefix.size() + 1;
        return all.substr(at, all.find('\n', at) - at);
    }
    int wait() { int status = -1; return waitpid(std::exchange(pid, -1), &status, 0), status; }
    static inline int made_ = 0;
};

// The lock on a file as this (other) process sees it: type, owner, start, length.
std::vector<long> lock_seen(const std::string &path) {
    struct flock fl {F_WRLCK, SEEK_SET, 0, 0, 0};
    const int fd = open(path.c_str(), O_RDONLY), rc = fcntl(fd, F_GETLK, &fl);
    return close(fd), std::vector<long>{rc == 0 ? fl.l_type : -1, fl.l_pid, static_cast<long>(fl.l_start), static_cast<long>(fl.l_len)};
}

std::string link(const std::string &path) { return fs::read_symlink(path).string(); }

uint32_t start_ok() { return 0; }
// Returns its parameter as the code, or 0x90018 for a null parameter.
uint32_t start_echo(void *param) { return param ? static_cast<uint32_t>(reinterpret_cast<uintptr_t>(param)) : 0x90018u; }
// Run by a daemon: 0x90022 if it leads a session of its own with the null device as its standard streams.
uint32_t start_in_daemon() {
    const std::string null = "/dev/null";
    return getsid(0) == getpid() && link("/proc/self/fd/0") == null && link("/proc/self/fd/1") == null && link("/proc/self/fd/2") == null ? 0x90022 : 0x90001;
}

class Service : public ::testing::Test {
protected:
    void TearDown() override { fs::remove_all(dir_); }
    std::string dir_ = mkdtemp(std::string("/tmp/ostrel_service_XXXXXX").data()); // a null result throws: the test fails
};

TEST_F(Service, ForegroundInstanceHoldsItsLockedPidFileAndASecondOneIsRefused) {
    const std::string file = dir_ + "/qmv_ns_svc.pid", label = "_nonservice_main(name,\"./\",cb_service_main,0,0)";
    const std::string head = L(1, "===>Enter Ostrel_NonService_Wrapper") + L(1, "--->" + label) + L(1, "===>Enter _nonservice_main") +
                             L(1, "pid file path=(.//qmv_ns_svc.pid)") + L(1, "===>Enter _create_pid_file");
    Child first(dir_, [] { return Ostrel_NonService_Wrapper("svc", start_ok); });
    ASSERT_EQ(first.after("1 src/service <---cb_service_main()=0x0"), "");
    const std::string content = read_file(file), fd = first.after("1 src/service <===Exit _create_pid_file with 0x");
    EXPECT_EQ(content, std::to_string(first.pid) + "\n");
    EXPECT_EQ(fs::status(file).permissions(), fs::perms::all);
    EXPECT_EQ(lock_seen(file), std::vector<long>({F_WRLCK, first.pid, 0, 0}));
    EXPECT_EQ(first.got(), "\n" + head + L(1, "<===Exit _create_pid_file with 0x" + fd) + L(1, "--->cb_service_main()") +
                               L(1, "<---cb_service_main()=0x0"));
    // The descriptor the exit trace names is the pid file, open read-write and close-on-exec.
    const std::string proc = "/proc/" + std::to_string(first.pid), fd_number = std::to_string(std::stoul(fd, nullptr, 16));
    EXPECT_EQ(link(proc + "/fd/" + fd_number), fs::canonical(file).string());
    const std::string info = read_file(proc + "/fdinfo/" + fd_number);
    EXPECT_EQ(std::stol(info.substr(info.find("flags:") + 6), nullptr, 8) & (O_CLOEXEC | O_ACCMODE), O_CLOEXEC | O_RDWR);

    Child second(dir_, [] { return Ostrel_NonService_Wrapper("svc", start_ok); });
    EXPECT_EQ(second.after("= "), "0x90001 " + std::to_string(second.pid));
    EXPECT_EQ(second.got(), "\n" + head + L(8, "PID file .//qmv_ns_svc.pid is locked.") + L(1, "<===Exit _create_pid_file with 0xffffffff") +
                                L(8, "Create pid file failed.") + L(1, "<===Exit _nonservice_main with 0x90001") + L(1, "<---" + label + "=0x90001") +
                                L(8, "Error in Ostrel_NonService_Wrapper, _nonservice_main(name,PID_FILE_DIR,cb_service_main,0,0)=0x90001, "
                                     "[ostrel]Unknown error.") + L(1, "<===Exit Ostrel_NonService_Wrapper with 0x90001") + "= " + second.after("= ") + "\n");

    // Started, the wrapper sleeps: the process stays until killed (not ended
    // otherwise), and its lock goes with it; the refused instance changed nothing.
    kill(first.pid, SIGTERM);
    EXPECT_EQ(first.wait(), SIGTERM);
    EXPECT_EQ(lock_seen(file)[0], F_UNLCK);
    EXPECT_EQ(read_file(file), content); // never deleted
}

// Every wrapper with a failing callback returns the callback's code, logged
// under its own labels, from the process that wrote the pid file (in the
// daemon form not the one started, which exits at once); an old longer pid
// file is truncated. Failures before the callback return 0x90001 or 0x9000F
// and leave no file behind.
TEST_F(Service, FailuresReturnTheirCodesUnderEachWrappersLabels) {
    auto cb_failed = [](const std::string &wrapper, const std::string &main, const std::string &trace, const std::string &error,
                        const std::string &cb, const std::string &code, const std::string &text) {
        return std::vector<std::string>{L(1, "===>Enter " + wrapper), L(1, "--->" + trace), L(1, "===>Enter " + main),
            L(1, "--->" + cb), L(1, "<---" + cb + "=" + code), L(8, "Error in " + main + ", " + cb + "=" + code + ", [ostrel]" + text),
            L(1, "<===Exit " + main + " with " + code), L(1, "<---" + trace + "=" + code),
            L(8, "Error in " + wrapper + ", " + error + "=" + code + ", [ostrel]" + text), L(1, "<===Exit " + wrapper + " with " + code)};
    };
    const std::string sub = dir_ + "/custom", ns = "Ostrel_NonService_Wrapper", path_ex = "_nonservice_main(name,path,0,cb_service_main,param)",
                      sv = "_service_main(info,argc,argv,cb_service_main,0,0)", sv_ex = "_service_main(info,argc,argv,0,cb_service_main,param)";
    ASSERT_TRUE(fs::create_directory(sub));
    const std::vector<std::tuple<std::function<uint32_t()>, std::string, std::string, std::vector<std::string>>> rows = {
        {[] { return Ostrel_NonService_Wrapper("fail", [] { return 0x9000Fu; }); }, "0x9000f", "qmv_ns_fail.pid",
         cb_failed(ns, "_nonservice_main", "_nonservice_main(name,\"./\",cb_service_main,0,0)",
                   "_nonservice_main(name,PID_FILE_DIR,cb_service_main,0,0)", "cb_service_main()", "0x9000f", "Invalid parameter.")},
        {[] { return Ostrel_NonService_Wrapper_Ex("failex", start_echo, reinterpret_cast<void *>(0x90014)); }, "0x90014", "qmv_ns_failex.pid",
         cb_failed(ns + "_Ex", "_nonservice_main", "_nonservice_main(name,\"./\",0,cb_service_main,param)",
                   "_nonservice_main(name,PID_FILE_DIR,0,cb_service_main,param)", "cb_service_main_ex(param)", "0x90014", "Invalid status.")},
        {[&] { return Ostrel_NonService_Wrapper_CustomPath("cp", sub.c_str(), start_echo); }, "0x90018", "custom/qmv_ns_cp.pid",
         cb_failed(ns + "_CustomPath", "_nonservice_main", "_nonservice_main(name,path,0,cb_service_main,0)",
                   "_nonservice_main(name,path,0,cb_service_main,0)", "cb_service_main_ex(param)", "0x90018",
                   "Can not find specified item(node,element).")},
        {[&] { return Ostrel_NonService_Wrapper_CustomPath_Ex("cpx", sub.c_str(), start_echo, reinterpret_cast<void *>(0x90022)); }, "0x90022",
         "custom/qmv_ns_cpx.pid", cb_failed(ns + "_CustomPath_Ex", "_nonservice_main", path_ex, path_ex, "cb_service_main_ex(param)",
                                            "0x90022", "Data comparation failed.")},
        {[] { return Ostrel_Service_Wrapper("dmn", 0, nullptr, start_in_daemon); }, "0x90022", "qmv_sv_dmn.pid",
         cb_failed("Ostrel_Service_Wrapper", "_service_main", sv, sv, "cb_service_main()", "0x90022", "Data comparation failed.")},
        {[] { return Ostrel_Service_Wrapper_Ex("dmnx", 0, nullptr, start_echo, reinterpret_cast<void *>(0x90014)); }, "0x90014", "qmv_sv_dmnx.pid",
         cb_failed("Ostrel_Service_Wrapper_Ex", "_service_main", sv_ex, sv_ex, "cb_service_main_ex(param)", "0x90014", "Invalid status.")},
        {[] { return Ostrel_NonService_Wrapper_CustomPath("x", "no/such/dir", start_echo); }, "0x90001", "",
         {L(8, "Cannot open pid file no/such/dir/qmv_ns_x.pid: 2"), L(1, "<===Exit _create_pid_file with 0xffffffff"),
          L(8, "Create pid file failed.")}},
        // A path longer than the library's 256-byte buffer.
        {[] { return Ostrel_NonService_Wrapper(std::string(300, 'n').c_str(), start_ok); }, "0x90001", "",
         {L(8, "Pid file path too long (314 bytes, at most 255)."), L(8, "Create pid file failed.")}},
        {[] { return Ostrel_Service_Wrapper("x", 0, nullptr, nullptr); }, "0x9000f", "",
         {L(8, "Error in Ostrel_Service_Wrapper, assert(NULL != pfnStart) failed."), L(1, "<===Exit Ostrel_Service_Wrapper with 0x9000f")}},
    };
    std::ofstream(dir_ + "/qmv_ns_fail.pid") << "123456789012345678901234567890\nleftover line\n";
    for (const auto &[run, code, pid_file, lines] : rows) {
        SCOPED_TRACE(lines.front());
        Child child(dir_, run);
        const std::string started = std::to_string(child.pid), result = child.after("= ");
        const std::string returned = result.substr(result.find(' ') + 1);
        EXPECT_EQ(child.wait(), 0);
        EXPECT_EQ(result.substr(0, result.find(' ')), code);
        EXPECT_EQ(pid_file.empty() ? "" : read_file(dir_ + "/" + pid_file), pid_file.empty() ? "" : returned + "\n");
        EXPECT_EQ(returned == started, pid_file.rfind("qmv_sv", 0) != 0) << "only the daemon form detaches";
        size_t at = std::string::npos; // in this order, others allowed in between
        for (const auto &l : lines) ASSERT_NE(at = child.got().find("\n" + l, at + 1), std::string::npos) << l << child.got();
        EXPECT_EQ(child.got().find("--->cb_service_main") == std::string::npos, pid_file.empty());
        if (const int daemon = std::atoi(read_file(dir_ + "/" + pid_file).c_str()); result == "?" && daemon > 0) kill(daemon, SIGKILL);
    }
    EXPECT_EQ(tgtest::count_dir_entries(dir_.c_str()), 5); // four files in the default directory, and custom/
    EXPECT_EQ(tgtest::count_dir_entries(sub.c_str()), 2);
}

} // namespace
