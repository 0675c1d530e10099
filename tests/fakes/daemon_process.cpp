#include "fakes/daemon_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <jansson.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <utility>

extern char** environ;

namespace vigild::testing {

namespace fsys = std::filesystem;

DaemonProcess::DaemonProcess(std::string binary) : binary_(std::move(binary)) {}

bool DaemonProcess::makeRoot(const std::string& prefix) {
    if (!make(prefix)) return false;
    makeDir("/sdcard");
    makeDir("/system/lib64");
    setProperty("persist.sys.vd.storage_path", "/sdcard/");
    return true;
}

void DaemonProcess::installModule(const std::string& library) {
    fsys::copy_file(library, hostPath("/system/lib64/" + fsys::path(library).filename().string()));
}

void DaemonProcess::writeBugreportTool(const std::string& body) {
    writeFile("/system/bin/bugreportz.new", "#!/bin/sh\n" + body + "\n");
    fsys::permissions(hostPath("/system/bin/bugreportz.new"), fsys::perms::owner_all);
    fsys::rename(hostPath("/system/bin/bugreportz.new"), hostPath("/system/bin/bugreportz"));
}

pid_t DaemonProcess::spawn(const std::vector<std::string>& argv, const std::string& out,
                           const std::string& err, const std::vector<std::string>& extraEnv) {
    std::vector<std::string> env = {"VIGILD_ROOT=" + root(), "VIGILD_TIME_SCALE=0.01"};
    for (char** e = environ; *e != nullptr; e++) {
        if (std::string(*e).rfind("VIGILD_", 0) != 0) env.push_back(*e);
    }
    env.insert(env.end(), extraEnv.begin(), extraEnv.end());
    std::vector<char*> envp, args;
    for (const std::string& var : env) envp.push_back(const_cast<char*>(var.c_str()));
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    envp.push_back(nullptr);
    args.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    const int flags = O_WRONLY | O_CREAT | O_APPEND;
    if (!out.empty()) {
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, hostPath(out).c_str(), flags,
                                         0644);
    }
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, hostPath(err).c_str(), flags, 0644);
    pid_t pid = -1;
    int error = posix_spawn(&pid, args[0], &actions, nullptr, args.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    return error == 0 ? pid : -1;
}

int DaemonProcess::terminate(pid_t pid) {
    if (pid <= 0) return -1;
    ::kill(pid, SIGTERM);
    int raw = 0;
    waitpid(pid, &raw, 0);
    return WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
}

bool DaemonProcess::launch(const std::vector<std::string>& extraEnv) {
    pid_ = spawn({binary_}, "", "/vigild.stderr", extraEnv);
    return pid_ > 0;
}

bool DaemonProcess::alive() { return pid_ > 0 && waitpid(pid_, nullptr, WNOHANG) == 0; }

void DaemonProcess::kill() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

std::string fetchConfig(vdstandin::StandinService& service, std::chrono::milliseconds timeout) {
    size_t before = service.configs().size();
    service.queueCommand("config_get:");
    EXPECT_TRUE(eventually([&] { return service.configs().size() > before; }, timeout));
    const auto configs = service.configs();
    return configs.empty() ? "" : configs.back();
}

std::string withSetting(const std::string& document, const char* module, const char* name,
                        const char* value) {
    json_t* root = json_loads(document.c_str(), 0, nullptr);
    json_t* settings = json_object_get(json_object_get(root, module), "settings");
    for (size_t i = 0; i < json_array_size(settings); i++) {
        json_t* entry = json_array_get(settings, i);
        const char* entryName = json_string_value(json_object_get(entry, "name"));
        if (entryName != nullptr && strcmp(entryName, name) == 0) {
            json_object_set_new(entry, "value", json_string(value));
        }
    }
    char* text = json_dumps(root, 0);
    std::string result = text != nullptr ? text : "";
    free(text);
    json_decref(root);
    return result;
}

}  // namespace vigild::testing
