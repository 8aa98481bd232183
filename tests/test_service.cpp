// Service wrappers, run in child processes (a wrapper that starts never
// returns): the pid file's path, content, mode, close-on-exec flag and lock
// as another process sees it; a second instance refused; failing callbacks'
// codes returned and logged; an old longer pid file truncated; the daemon
// form detaching and stopping by signal. Every child works in a temporary
// directory of its own.
#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "ostrel_common.h"
#include "ostrel_service.h"
#include "test_util.h"
#include "zurn_general.h"

namespace {

constexpr const char *kPath = "src/service";

struct Line {
    int level;
    std::string path;
    std::string text;
};

// The child's log lines travel through a pipe: "level\tpath\ttext\n"; its
// wrapper's result, if the wrapper returns, as "=code\n".
int g_log_fd = -1;

void pipe_sink(void *, const char *, int level, const char *path, int, const char *text) {
    char buf[2048];
    int n = snprintf(buf, sizeof buf, "%d\t%s\t%s\n", level, path, text);
    if (n > 0) (void)!write(g_log_fd, buf, std::min<size_t>(static_cast<size_t>(n), sizeof buf - 1));
}

class Child {
public:
    // Forks; the child enters dir, sets a restrictive umask (the pid file's
    // mode must not depend on it), logs everything into the pipe and runs body.
    Child(const std::string &dir, const std::function<uint32_t()> &body) {
        int p[2];
        if (pipe(p) != 0) return;
        pid_ = fork();
        if (pid_ == 0) {
            close(p[0]);
            g_log_fd = p[1];
            if (chdir(dir.c_str()) != 0) _exit(3);
            umask(077);
            ZurnGeneral_SetLogLevel(1);
            ZurnGeneral_SetLogSink(pipe_sink, nullptr, ZURN_LOG_SINK_ONLY);
            uint32_t rc = body();
            char buf[32];
            int n = snprintf(buf, sizeof buf, "=%u\n", rc);
            (void)!write(p[1], buf, static_cast<size_t>(n));
            _exit(0);
        }
        close(p[1]);
        fd_ = p[0];
    }
    ~Child() {
        if (fd_ >= 0) close(fd_);
        stop(SIGKILL);
    }
    pid_t pid() const { return pid_; }
    bool alive() const { return pid_ > 0 && waitpid(pid_, nullptr, WNOHANG) == 0; }
    // Kills the child and returns its wait status.
    int stop(int sig) {
        if (pid_ <= 0) return -1;
        kill(pid_, sig);
        int status = -1;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return status;
    }
    int wait_exit() {
        int status = -1;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return status;
    }

    // Reads lines until one has `text` (true) or the pipe ends (false). The
    // bound only keeps a broken build from hanging the suite.
    bool read_until(const std::string &text) {
        for (const auto &l : lines_)
            if (l.text == text) return true;
        auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (std::chrono::steady_clock::now() < end) {
            pollfd pfd{fd_, POLLIN, 0};
            if (poll(&pfd, 1, 100) <= 0) continue;
            char buf[4096];
            ssize_t n = read(fd_, buf, sizeof buf);
            if (n <= 0) return false;
            pending_.append(buf, static_cast<size_t>(n));
            bool found = false;
            size_t nl;
            while ((nl = pending_.find('\n')) != std::string::npos) {
                std::string one = pending_.substr(0, nl);
                pending_.erase(0, nl + 1);
                if (one.rfind('=', 0) == 0) {
                    result_ = static_cast<uint32_t>(std::stoul(one.substr(1)));
                    has_result_ = true;
                    continue;
                }
                std::istringstream in(one);
                Line l;
                std::string level;
                std::getline(in, level, '\t');
                std::getline(in, l.path, '\t');
                std::getline(in, l.text);
                l.level = std::atoi(level.c_str());
                if (l.text == text) found = true;
                lines_.push_back(l);
            }
            if (found) return true;
        }
        return false;
    }
    // Reads to the end of the pipe and returns the wrapper's result.
    uint32_t result() {
        read_until("\x01 never logged");
        EXPECT_TRUE(has_result_) << "the wrapper did not return";
        return result_;
    }
    bool has(int level, const std::string &text) const {
        for (const auto &l : lines_)
            if (l.level == level && l.path == kPath && l.text == text) return true;
        return false;
    }
    std::vector<std::string> texts() const {
        std::vector<std::string> out;
        for (const auto &l : lines_) out.push_back(l.text);
        return out;
    }

private:
    pid_t pid_ = -1;
    int fd_ = -1;
    std::string pending_;
    std::vector<Line> lines_;
    uint32_t result_ = 0;
    bool has_result_ = false;
};

std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// The lock on a file as another process sees it.
struct flock lock_seen(const std::string &path) {
    struct flock fl;
    memset(&fl, 0, sizeof fl);
    fl.l_type = F_WRLCK;
    fl.l_whence = SEEK_SET;
    int fd = open(path.c_str(), O_RDONLY);
    if (fd < 0 || fcntl(fd, F_GETLK, &fl) != 0) fl.l_type = -1;
    if (fd >= 0) close(fd);
    return fl;
}

// The descriptor number a process holds open on `path`; -1 if none.
int pid_fd_of(pid_t pid, const std::string &path) {
    char real[PATH_MAX];
    if (realpath(path.c_str(), real) == nullptr) return -1;
    std::string dir = "/proc/" + std::to_string(pid) + "/fd";
    DIR *d = opendir(dir.c_str());
    if (d == nullptr) return -1;
    int fd = -1;
    while (dirent *e = readdir(d)) {
        char target[PATH_MAX];
        ssize_t n = readlink((dir + "/" + e->d_name).c_str(), target, sizeof target - 1);
        if (n <= 0) continue;
        target[n] = 0;
        if (std::string(target) == real) fd = std::atoi(e->d_name);
    }
    closedir(d);
    return fd;
}

// Flags (as /proc reports them) of that descriptor; -1 if there is none.
long open_flags_of(pid_t pid, const std::string &path) {
    int fd = pid_fd_of(pid, path);
    if (fd < 0) return -1;
    std::ifstream info("/proc/" + std::to_string(pid) + "/fdinfo/" + std::to_string(fd));
    std::string key;
    long flags = -1;
    while (info >> key)
        if (key == "flags:") {
            info >> std::oct >> flags;
            break;
        }
    return flags;
}

uint32_t start_ok() { return 0; }
uint32_t start_invalid_parameter() { return 0x9000F; }
// Returns its parameter as the code, or 0x90018 for a null parameter.
uint32_t start_ex_echo(void *param) {
    return param != nullptr ? static_cast<uint32_t>(reinterpret_cast<uintptr_t>(param)) : 0x90018u;
}

class ServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/ostrel_service_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
    }
    void TearDown() override {
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }
    std::string dir_;
};

TEST_F(ServiceTest, ForegroundWrapperWritesLocksAndKeepsItsPidFile) {
    Child svc(dir_, [] { return Ostrel_NonService_Wrapper("svc", start_ok); });
    ASSERT_TRUE(svc.read_until("<---cb_service_main()=0x0"));
    const std::string file = dir_ + "/qmv_ns_svc.pid";
    EXPECT_EQ(read_file(file), std::to_string(svc.pid()) + "\n");
    struct stat st;
    ASSERT_EQ(stat(file.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0777u);
    struct flock fl = lock_seen(file);
    EXPECT_EQ(fl.l_type, F_WRLCK);
    EXPECT_EQ(fl.l_pid, svc.pid());
    EXPECT_EQ(fl.l_start, 0);
    EXPECT_EQ(fl.l_len, 0); // the whole file
    long flags = open_flags_of(svc.pid(), file);
    ASSERT_GE(flags, 0) << "the pid file is not held open";
    EXPECT_NE(flags & O_CLOEXEC, 0);
    EXPECT_EQ(flags & O_ACCMODE, O_RDWR);

    char fd_exit[64];
    snprintf(fd_exit, sizeof fd_exit, "<===Exit _create_pid_file with 0x%x",
             static_cast<unsigned>(pid_fd_of(svc.pid(), file)));
    const std::vector<std::string> expected = {
        "===>Enter Ostrel_NonService_Wrapper",
        "--->_nonservice_main(name,\"./\",cb_service_main,0,0)",
        "===>Enter _nonservice_main",
        "pid file path=(.//qmv_ns_svc.pid)",
        "===>Enter _create_pid_file",
        fd_exit,
        "--->cb_service_main()",
        "<---cb_service_main()=0x0",
    };
    EXPECT_EQ(svc.texts(), expected);

    // Started: the wrapper sleeps and the process stays; the lock goes with it.
    EXPECT_TRUE(svc.alive());
    int status = svc.stop(SIGTERM);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
    EXPECT_EQ(lock_seen(file).l_type, F_UNLCK);
    EXPECT_EQ(access(file.c_str(), F_OK), 0); // never deleted by the library
}

TEST_F(ServiceTest, SecondInstanceIsRefusedWhileTheFirstRuns) {
    Child first(dir_, [] { return Ostrel_NonService_Wrapper("svc", start_ok); });
    ASSERT_TRUE(first.read_until("<---cb_service_main()=0x0"));
    Child second(dir_, [] { return Ostrel_NonService_Wrapper("svc", start_ok); });
    EXPECT_EQ(second.result(), 0x90001u);
    EXPECT_EQ(second.wait_exit(), 0);
    const std::vector<std::string> expected = {
        "===>Enter Ostrel_NonService_Wrapper",
        "--->_nonservice_main(name,\"./\",cb_service_main,0,0)",
        "===>Enter _nonservice_main",
        "pid file path=(.//qmv_ns_svc.pid)",
        "===>Enter _create_pid_file",
        "PID file .//qmv_ns_svc.pid is locked.",
        "<===Exit _create_pid_file with 0xffffffff",
        "Create pid file failed.",
        "<===Exit _nonservice_main with 0x90001",
        "<---_nonservice_main(name,\"./\",cb_service_main,0,0)=0x90001",
        "Error in Ostrel_NonService_Wrapper, _nonservice_main(name,PID_FILE_DIR,cb_service_main,0,0)=0x90001, "
        "[ostrel]Unknown error.",
        "<===Exit Ostrel_NonService_Wrapper with 0x90001",
    };
    EXPECT_EQ(second.texts(), expected);
    EXPECT_TRUE(second.has(LOG_LEVEL_ERROR, "PID file .//qmv_ns_svc.pid is locked."));
    EXPECT_TRUE(second.has(LOG_LEVEL_ERROR, "Create pid file failed."));
    // The refused instance changed nothing in the file.
    EXPECT_EQ(read_file(dir_ + "/qmv_ns_svc.pid"), std::to_string(first.pid()) + "\n");
    EXPECT_EQ(lock_seen(dir_ + "/qmv_ns_svc.pid").l_pid, first.pid());
}

// Each foreground wrapper with a failing callback: the callback's code comes
// back unchanged, logged with its module and text by the main and by the
// wrapper, under the wrapper's own labels; the pid file stays written (and
// an old, longer one is truncated).
TEST_F(ServiceTest, FailingCallbacksCodeIsReturnedAndLogged) {
    struct Case {
        const char *name;
        std::function<uint32_t(const std::string &)> run;
        const char *trace_label;
        const char *error_label;
        const char *cb_label;
        uint32_t code;
        const char *text;
        std::string pid_file; // relative to the test directory
    };
    const std::string sub = dir_ + "/custom";
    ASSERT_EQ(mkdir(sub.c_str(), 0700), 0);
    const std::vector<Case> cases = {
        {"Ostrel_NonService_Wrapper", [](const std::string &) {
             return Ostrel_NonService_Wrapper("fail", start_invalid_parameter); },
         "_nonservice_main(name,\"./\",cb_service_main,0,0)",
         "_nonservice_main(name,PID_FILE_DIR,cb_service_main,0,0)", "cb_service_main()", 0x9000F,
         "Invalid parameter.", "qmv_ns_fail.pid"},
        {"Ostrel_NonService_Wrapper_Ex", [](const std::string &) {
             return Ostrel_NonService_Wrapper_Ex("failex", start_ex_echo, reinterpret_cast<void *>(0x90014));
         },
         "_nonservice_main(name,\"./\",0,cb_service_main,param)",
         "_nonservice_main(name,PID_FILE_DIR,0,cb_service_main,param)", "cb_service_main_ex(param)", 0x90014,
         "Invalid status.", "qmv_ns_failex.pid"},
        {"Ostrel_NonService_Wrapper_CustomPath", [](const std::string &d) {
             return Ostrel_NonService_Wrapper_CustomPath("cp", d.c_str(), start_ex_echo); },
         "_nonservice_main(name,path,0,cb_service_main,0)", "_nonservice_main(name,path,0,cb_service_main,0)",
         "cb_service_main_ex(param)", 0x90018, "Can not find specified item(node,element).", "custom/qmv_ns_cp.pid"},
        {"Ostrel_NonService_Wrapper_CustomPath_Ex", [](const std::string &d) {
             return Ostrel_NonService_Wrapper_CustomPath_Ex("cpx", d.c_str(), start_ex_echo,
                                                            reinterpret_cast<void *>(0x90022));
         },
         "_nonservice_main(name,path,0,cb_service_main,param)",
         "_nonservice_main(name,path,0,cb_service_main,param)", "cb_service_main_ex(param)", 0x90022,
         "Data comparation failed.", "custom/qmv_ns_cpx.pid"},
    };
    {
        // An old, longer pid file is truncated.
        std::ofstream old(dir_ + "/" + cases[0].pid_file);
        old << "123456789012345678901234567890\nleftover line\n";
    }
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        Child child(dir_, [&] { return c.run(sub); });
        const pid_t pid = child.pid();
        EXPECT_EQ(child.result(), c.code);
        EXPECT_EQ(child.wait_exit(), 0);
        char code[16];
        snprintf(code, sizeof code, "0x%x", c.code);
        EXPECT_TRUE(child.has(LOG_LEVEL_TRACE, std::string("--->") + c.trace_label));
        EXPECT_TRUE(child.has(LOG_LEVEL_TRACE, std::string("<---") + c.cb_label + "=" + code));
        EXPECT_TRUE(child.has(LOG_LEVEL_ERROR, std::string("Error in _nonservice_main, ") + c.cb_label + "=" + code +
                                                   ", [ostrel]" + c.text));
        EXPECT_TRUE(child.has(LOG_LEVEL_TRACE, std::string("<===Exit _nonservice_main with ") + code));
        EXPECT_TRUE(child.has(LOG_LEVEL_TRACE, std::string("<---") + c.trace_label + "=" + code));
        EXPECT_TRUE(child.has(LOG_LEVEL_ERROR, std::string("Error in ") + c.name + ", " + c.error_label + "=" +
                                                   code + ", [ostrel]" + c.text));
        EXPECT_TRUE(child.has(LOG_LEVEL_TRACE, std::string("<===Exit ") + c.name + " with " + code));
        EXPECT_EQ(read_file(dir_ + "/" + c.pid_file), std::to_string(pid) + "\n");
    }
}

// Kills and reaps a process at the end of a scope, so a failed check never
// leaves a daemon behind.
struct Reaper {
    pid_t pid = -1;
    ~Reaper() {
        if (pid > 0 && kill(pid, SIGKILL) == 0) waitpid(pid, nullptr, 0);
    }
};

std::string link_target(const std::string &path) {
    char buf[PATH_MAX];
    ssize_t n = readlink(path.c_str(), buf, sizeof buf - 1);
    return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
}

// The daemon form's grandchild must be reaped by this test process. User-mode
// emulators do not pass PR_SET_CHILD_SUBREAPER on; there the tests are skipped.
bool become_subreaper() { return prctl(PR_SET_CHILD_SUBREAPER, 1) == 0; }

TEST_F(ServiceTest, DaemonFormDetachesRunsInItsOwnSessionAndStopsBySignal) {
    // Orphans of this test become its children, so the daemon can be reaped.
    if (!become_subreaper()) GTEST_SKIP() << "no child subreaper here (e.g. under a user-mode emulator)";
    Child launcher(dir_, [] { return Ostrel_Service_Wrapper("dmn", 0, nullptr, start_ok); });
    const pid_t launcher_pid = launcher.pid();
    int status = launcher.wait_exit();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the launching half exits at once";
    ASSERT_TRUE(launcher.read_until("<---cb_service_main()=0x0"));
    const std::string file = dir_ + "/qmv_sv_dmn.pid";
    const std::string content = read_file(file);
    Reaper daemon_proc{static_cast<pid_t>(std::atoi(content.c_str()))};
    const pid_t pid = daemon_proc.pid;
    ASSERT_GT(pid, 0);
    EXPECT_EQ(content, std::to_string(pid) + "\n");
    EXPECT_NE(pid, launcher_pid);
    EXPECT_EQ(getsid(pid), pid);
    EXPECT_EQ(lock_seen(file).l_pid, pid);
    for (int fd = 0; fd < 3; ++fd)
        EXPECT_EQ(link_target("/proc/" + std::to_string(pid) + "/fd/" + std::to_string(fd)), "/dev/null");
    char real[PATH_MAX];
    ASSERT_NE(realpath(dir_.c_str(), real), nullptr);
    EXPECT_EQ(link_target("/proc/" + std::to_string(pid) + "/cwd"), real);
    EXPECT_TRUE(launcher.has(LOG_LEVEL_TRACE, "===>Enter _service_main"));
    EXPECT_TRUE(launcher.has(LOG_LEVEL_TRACE, "--->_service_main(info,argc,argv,cb_service_main,0,0)"));
    EXPECT_TRUE(launcher.has(LOG_LEVEL_TRACE, "pid file path=(./qmv_sv_dmn.pid)"));

    ASSERT_EQ(kill(pid, SIGTERM), 0);
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    daemon_proc.pid = -1;
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
    EXPECT_EQ(lock_seen(file).l_type, F_UNLCK);
}

TEST_F(ServiceTest, DaemonFormReturnsAFailingCallbacksCode) {
    if (!become_subreaper()) GTEST_SKIP() << "no child subreaper here (e.g. under a user-mode emulator)";
    Child launcher(dir_, [] {
        return Ostrel_Service_Wrapper_Ex("dfail", 0, nullptr, start_ex_echo, reinterpret_cast<void *>(0x90014));
    });
    launcher.wait_exit();
    // The daemon half writes the wrapper's result.
    EXPECT_EQ(launcher.result(), 0x90014u);
    const pid_t pid = static_cast<pid_t>(std::atoi(read_file(dir_ + "/qmv_sv_dfail.pid").c_str()));
    ASSERT_GT(pid, 0);
    int status = -1;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(launcher.has(LOG_LEVEL_ERROR,
                             "Error in _service_main, cb_service_main_ex(param)=0x90014, [ostrel]Invalid status."));
    EXPECT_TRUE(launcher.has(LOG_LEVEL_ERROR, "Error in Ostrel_Service_Wrapper_Ex, "
                                              "_service_main(info,argc,argv,0,cb_service_main,param)=0x90014, "
                                              "[ostrel]Invalid status."));
    EXPECT_TRUE(launcher.has(LOG_LEVEL_TRACE, "<===Exit Ostrel_Service_Wrapper_Ex with 0x90014"));
}

TEST_F(ServiceTest, UnusablePidFilePathsAndANullCallbackAreRefused) {
    {
        Child c(dir_, [] { return Ostrel_NonService_Wrapper_CustomPath("x", "no/such/dir", start_ex_echo); });
        EXPECT_EQ(c.result(), 0x90001u);
        EXPECT_TRUE(c.has(LOG_LEVEL_ERROR, "Cannot open pid file no/such/dir/qmv_ns_x.pid: 2"));
        EXPECT_TRUE(c.has(LOG_LEVEL_TRACE, "<===Exit _create_pid_file with 0xffffffff"));
        EXPECT_TRUE(c.has(LOG_LEVEL_ERROR, "Create pid file failed."));
        EXPECT_FALSE(c.has(LOG_LEVEL_TRACE, "--->cb_service_main_ex(param)"));
    }
    {
        // A path that does not fit the library's 256-byte buffer.
        Child c(dir_, [] { return Ostrel_NonService_Wrapper(std::string(300, 'n').c_str(), start_ok); });
        EXPECT_EQ(c.result(), 0x90001u);
        EXPECT_TRUE(c.has(LOG_LEVEL_ERROR, "Pid file path too long (314 bytes, at most 255)."));
        EXPECT_TRUE(c.has(LOG_LEVEL_ERROR, "Create pid file failed."));
        EXPECT_FALSE(c.has(LOG_LEVEL_TRACE, "--->cb_service_main()"));
    }
    {
        Child c(dir_, [] { return Ostrel_Service_Wrapper("x", 0, nullptr, nullptr); });
        EXPECT_EQ(c.result(), 0x9000Fu);
        EXPECT_TRUE(c.has(LOG_LEVEL_ERROR, "Error in Ostrel_Service_Wrapper, assert(NULL != pfnStart) failed."));
        EXPECT_TRUE(c.has(LOG_LEVEL_TRACE, "<===Exit Ostrel_Service_Wrapper with 0x9000f"));
    }
    // Nothing was created in the working directory.
    EXPECT_EQ(tgtest::count_dir_entries(dir_.c_str()), 0);
}

} // namespace
