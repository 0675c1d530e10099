// The bug report worker against stand-in tools written into the device root, and the
// recovery log copy.
#include "storage/bugreport.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "core/daemon_state.h"
#include "core/log.h"
#include "core/module_registry.h"
#include "fakes/eventually.h"
#include "fakes/fake_module.h"
#include "fakes/test_platform.h"
#include "platform/fs.h"
#include "standin/standin_service.h"

namespace {

using namespace std::chrono_literals;
using vigild::testing::FakeModule;
using vigild::testing::registerModule;
using vigild::testing::TestPlatform;

constexpr const char* kTool = "/system/bin/bugreportz";
constexpr const char* kArchive = "/bugreports/bugreport-dev-2020.zip";

// The virtual clock's steps pass at once, so a tool that is still starting would count as
// hung: each step waits (without reaping) until a child of this process has ended.
void waitForAnyChildToEnd() {
    siginfo_t info = {};
    waitid(P_ALL, 0, &info, WEXITED | WNOWAIT);
}

bool hasChildren() {
    int status = 0;
    return waitpid(-1, &status, WNOHANG) != -1 || errno != ECHILD;
}

// Spawns without a pipe, or without a child (the parent then reads a closed pipe).
class BrokenProcesses : public vigild::platform::host::HostProcesses {
  public:
    BrokenProcesses(TestPlatform& p, bool pipeWorks)
        : HostProcesses(vigild::platform::current().root, &p.properties()), pipeWorks_(pipeWorks) {}
    vigild::platform::Child spawn(const char*) override {
        vigild::platform::Child child;
        int fds[2];
        if (!pipeWorks_ || pipe(fds) != 0) return child;
        close(fds[1]);
        child.outputFd = fds[0];
        return child;
    }

  private:
    bool pipeWorks_;
};

class BugreportTest : public ::testing::Test {
  protected:
    void SetUp() override {
        p.enableDebugLog();
        p.makeDir("/sdcard/Tellwick");
        ASSERT_TRUE(service.start());
        p.setProperty("persist.sys.vd.tw_bugreport", "true");
        p.clock().onSleep([](std::chrono::milliseconds) { waitForAnyChildToEnd(); });
    }
    void writeTool(const std::string& body) {
        p.writeFile(kTool, "#!/bin/sh\n" + body + "\n");
        ASSERT_EQ(chmod(p.hostPath(kTool).c_str(), 0755), 0);
    }
    bool logged(const std::string& line, int priority = -1) {
        return p.log().contains(line, priority);
    }
    // The result went to the service and the request was cleared.
    void expectReported(int status) {
        EXPECT_EQ(service.bugreportStatuses(), (std::vector<int>{status}));
        EXPECT_EQ(p.property("persist.sys.vd.tw_bugreport"), "false");
    }
    bool reapLogged() {
        for (const auto& line : p.log().lines()) {
            if (line.text.rfind("bugreportz exited with status", 0) == 0) return true;
        }
        return false;
    }

    TestPlatform p;
    vdstandin::StandinService service{p.root()};
};

TEST_F(BugreportTest, OkLineMovesTheArchiveIntoTheLogFolder) {
    p.writeFile(kArchive, "zip bytes");
    writeTool("echo 'Bugreport in progress'\necho 'OK:/bugreports/bugreport-dev-2020.zip'");

    EXPECT_EQ(bugreportPass(), kBugreportDone);

    EXPECT_EQ(p.readFile("/sdcard/Tellwick/TwBugreport-dev-2020.zip"), "zip bytes");
    EXPECT_FALSE(p.exists(kArchive));
    expectReported(1);
    EXPECT_TRUE(logged("TwBugreportz::twBugreportSrcPath == /bugreports/bugreport-dev-2020.zip\n"));
    EXPECT_TRUE(logged("Tw Bugreport::File copied successfully at destination", kLogInfo));
    EXPECT_TRUE(logged("Tw Bugreport::File deleted successfully from src path", kLogInfo));
    EXPECT_TRUE(logged("bugreportz exited with status: status == 0", kLogError));
    EXPECT_TRUE(logged("Tw Bugreport: bugreportz finished normally", kLogInfo));
    EXPECT_TRUE(logged("Tw Bugreport: report saved as /sdcard/Tellwick/TwBugreport-dev-2020.zip",
                       kLogInfo));
    EXPECT_LT(p.log().indexOf("inside child process"), p.log().indexOf("inside parent process"));
}

TEST_F(BugreportTest, ToolsWithoutAnArchiveAndAMissingToolReportFalse) {
    const struct {
        const char* name;
        std::string body;
        int status;
    } cases[] = {
        {"fail line", "echo 'FAIL:no space left'\nexit 3", 3},
        {"no output", "exit 0", 0},
        {"no tool at all", "", 1},
        // The OK line is not in the last chunk read.
        {"ok then a long tail",
         "echo 'OK:/bugreports/bugreport-dev-2020.zip'\nhead -c 6000 /dev/zero | tr '\\0' x", 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        p.log().clear();
        service.clearRecords();
        p.setProperty("persist.sys.vd.tw_bugreport", "true");
        p.writeFile(kArchive, "zip bytes");
        if (c.body.empty()) {
            unlink(p.hostPath(kTool).c_str());
        } else {
            writeTool(c.body);
        }

        EXPECT_EQ(bugreportPass(), kBugreportDone);

        EXPECT_TRUE(logged("Tw Bugreport::bugreport file is not present", kLogError));
        if (c.status == 3) {
            EXPECT_TRUE(logged(
                "Tw Bugreport: the tool named no archive; its last output line: \"FAIL:no space "
                "left\"",
                kLogError));
        }
        expectReported(0);
        EXPECT_TRUE(logged("bugreportz exited with status: status == " + std::to_string(c.status)));
        EXPECT_EQ(
            logged("Tw Bugreport: bugreportz failed with exit status " + std::to_string(c.status),
                   kLogError),
            c.status != 0);
        EXPECT_TRUE(p.exists(kArchive));
        EXPECT_FALSE(p.exists("/sdcard/Tellwick/TwBugreport-dev-2020.zip"));
    }
}

TEST_F(BugreportTest, MissingArchiveFailsTheCopyAndTheDeletion) {
    writeTool("echo 'OK:/bugreports/bugreport-gone.zip'");
    EXPECT_EQ(bugreportPass(), kBugreportDone);
    EXPECT_TRUE(logged("Error: Could not open source file: error == No such file or directory ",
                       kLogError));
    EXPECT_TRUE(logged("Tw Bugreport::File copied failed", kLogError));
    EXPECT_TRUE(
        logged("Tw Bugreport::File deletion failed from src path ==  No such file or directory",
               kLogError));
    expectReported(0);
}

TEST_F(BugreportTest, HangingToolIsKilledAfterTheDeadlineOfPlatformTime) {
    // exec, so the killed process is the one holding the pipe.
    writeTool("exec sleep 1000");
    p.clock().onSleep(nullptr);
    int result = -2;
    // Ten minutes of device time pass at once on the virtual clock.
    ASSERT_TRUE(vigild::testing::finishesWithin([&] { result = bugreportPass(); }, 10s));
    EXPECT_EQ(result, kBugreportDone);
    EXPECT_EQ(p.clock().sleeps(), std::vector<std::chrono::milliseconds>(600, 1s));
    EXPECT_TRUE(logged("bugreportz did not exit normally", kLogError));
    EXPECT_TRUE(logged("Tw Bugreport: bugreportz was ended by signal 9 (Killed)", kLogError));
    EXPECT_TRUE(logged("Tw Bugreport::bugreport file is not present", kLogError));
    expectReported(0);
    EXPECT_FALSE(hasChildren());
}

TEST_F(BugreportTest, AToolInheritsNoDescriptorAndEndsWithWhatItStarted) {
    // Descriptors the daemon holds while a tool runs.
    p.writeFile("/sdcard/Tellwick/held", "x");
    const int file = vigild::fs::open("/sdcard/Tellwick/held", O_RDONLY);
    FILE* stream = vigild::fs::fopen("/sdcard/Tellwick/held", "r");
    const int watch = vigild::fs::inotifyInit();
    ASSERT_TRUE(file >= 0 && stream != nullptr && watch >= 0);
    // Lists its descriptors, leaves a child behind, closes its output and stays.
    const std::string closed = p.hostPath("/closed");
    writeTool("ls /proc/$$/fd > " + p.hostPath("/fds") +
              "\nsleep 1000 >/dev/null 2>&1 &\necho $! > " + p.hostPath("/grandchild") +
              "\nexec >&- 2>&-\ntouch " + closed + "\nexec sleep 1000");
    // Platform time stands still until the tool has closed its output.
    p.clock().onSleep([&](std::chrono::milliseconds) {
        vigild::testing::eventually([&] { return access(closed.c_str(), F_OK) == 0; }, 10s);
    });
    ASSERT_TRUE(vigild::testing::finishesWithin([] { bugreportPass(); }, 10s));
    EXPECT_TRUE(logged("Tw Bugreport::bugreportz closed its output but did not exit, killing it",
                       kLogError));
    EXPECT_FALSE(hasChildren());

    std::istringstream listed(p.readFile("/fds"));
    std::set<std::string> inherited{std::istream_iterator<std::string>(listed), {}};
    for (int fd : {file, fileno(stream), watch})
        EXPECT_EQ(inherited.count(std::to_string(fd)), 0u) << fd;
    // Ended with the group: gone, or a zombie waiting for init.
    const std::string stat =
        "/proc/" + std::to_string(std::stoi(p.readFile("/grandchild"))) + "/stat";
    EXPECT_TRUE(vigild::testing::eventually(
        [&] {
            std::ifstream in(stat);
            std::string pid, name, state;
            return !(in >> pid >> name >> state) || state == "Z";
        },
        10s));
    close(file);
    fclose(stream);
    close(watch);
}

TEST_F(BugreportTest, BrokenPipeOrForkLogsOnlyWhatHappened) {
    auto* original = vigild::platform::current().processes;
    BrokenProcesses noPipe(p, false);
    vigild::platform::current().processes = &noPipe;
    EXPECT_EQ(bugreportPass(), kBugreportNoPipe);
    EXPECT_TRUE(logged("Pipe failed", kLogError));
    EXPECT_FALSE(logged("inside child process"));
    EXPECT_EQ(p.property("persist.sys.vd.tw_bugreport"), "true");

    p.log().clear();
    BrokenProcesses noFork(p, true);
    vigild::platform::current().processes = &noFork;
    EXPECT_EQ(bugreportPass(), kBugreportDone);
    vigild::platform::current().processes = original;
    EXPECT_GE(p.log().indexOf("inside child process"), 0);
    EXPECT_LT(p.log().indexOf("inside child process"), p.log().indexOf("Fork failed"));
    EXPECT_LT(p.log().indexOf("Fork failed"), p.log().indexOf("inside parent process"));
    expectReported(0);
    EXPECT_FALSE(reapLogged());
}

TEST_F(BugreportTest, WithoutServiceThePropertyStaysForARetry) {
    service.stop();
    p.writeFile(kArchive, "zip bytes");
    writeTool("echo 'OK:/bugreports/bugreport-dev-2020.zip'");

    EXPECT_EQ(bugreportPass(), kBugreportNoService);

    EXPECT_TRUE(logged("Failed to obtain a handle on vd_service", kLogError));
    EXPECT_EQ(p.property("persist.sys.vd.tw_bugreport"), "true");
    EXPECT_TRUE(p.exists(kArchive));
    // The child is reaped all the same, quietly: nothing was reported.
    EXPECT_FALSE(hasChildren());
    EXPECT_FALSE(reapLogged());
}

TEST_F(BugreportTest, WorkerPollsEveryThirtySecondsAndRunsOneReportPerRequest) {
    writeTool("echo 'FAIL:nothing'");
    int polls = 0;
    p.clock().onSleep([&](std::chrono::milliseconds d) {
        waitForAnyChildToEnd();
        if (d == 30s && ++polls >= 3) exitRequested = 1;
    });

    generateBugreport();

    EXPECT_EQ(polls, 3);
    for (auto d : p.clock().sleeps()) EXPECT_TRUE(d == 30s || d == 1s);
    EXPECT_EQ(p.log().count("inside parent process"), 1);
    EXPECT_TRUE(logged("generateBugreport::finish"));
}

TEST_F(BugreportTest, WorkerStartsNothingWhileThePropertyIsNotTrue) {
    writeTool("echo 'FAIL:nothing'");
    for (const char* value : {"false", "TRUE", "true "}) {
        SCOPED_TRACE(value);
        p.setProperty("persist.sys.vd.tw_bugreport", value);
        exitRequested = 0;
        p.clock().onSleep([&](std::chrono::milliseconds) { exitRequested = 1; });
        generateBugreport();
    }
    EXPECT_EQ(p.log().count("inside child process"), 0);
    EXPECT_TRUE(service.bugreportStatuses().empty());
}

TEST(CopyRecoveryLogsTest, StartsAnEnabledRecoveryModuleOnlyWhileRunning) {
    TestPlatform p;
    p.enableDebugLog();
    FakeModule recovery{"RecoveryModule"}, other{"recoveryModule"};
    registerModule(other);
    registerModule(recovery);

    const struct {
        int state;
        const char* enable;
        int starts;
        bool named;
    } cases[] = {
        {0, "true", 0, false}, {2, "true", 0, false}, {1, "false", 0, true}, {1, "true", 1, true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.state) + c.enable);
        p.log().clear();
        recovery.starts = 0;
        runState = c.state;
        strcpy(moduleRegistry[1].settings.configs[0].value, c.enable);

        copyRecoveryLogs();

        EXPECT_EQ(recovery.starts, c.starts);
        EXPECT_EQ(p.log().contains("copyRecoveryLogs():module is RecoveryModule"), c.named);
        EXPECT_EQ(p.log().contains("copyRecoveryLogs()- MODULE_CONFIG_ENABLE enable#1: 1"),
                  c.starts == 1);
    }
    EXPECT_EQ(recovery.prestops, 0);
    EXPECT_EQ(recovery.stops, 0);
    EXPECT_EQ(other.starts, 0);
}

}  // namespace
