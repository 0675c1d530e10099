// vigild-config: checks a configuration file before it is deployed, and prints the document a
// fresh device writes.
//
//   vigild-config check config.json --modules out/system/lib64
//   vigild-config defaults --modules out/system/lib64
//
// check loads the module libraries of --modules as the daemon does, reports every problem as
// FILE:LINE:COLUMN with each module's own configVal objections, and says what the daemon would
// do with the file. Nothing outside a scratch folder under /tmp is written.
//
// Exit status: 0 sound, 1 findings, 2 usage or unreadable file.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "config_lint/config_lint.h"
#include "modcheck/scratch_device.h"
#include "platform/platform.h"
#include "storage/utility.h"
#include "vigild_version.h"

namespace {

// Same bound as the daemon's own file reader.
bool readFile(const std::string& path, std::string* text) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    std::ostringstream out;
    char buffer[65536];
    while (in.read(buffer, sizeof(buffer)) || in.gcount() > 0) {
        out.write(buffer, in.gcount());
        if (out.tellp() > static_cast<std::streamoff>(kFileReaderLimit)) return false;
    }
    *text = out.str();
    return true;
}

bool setProperties(const std::vector<std::string>& assignments) {
    for (const std::string& a : assignments) {
        size_t eq = a.find('=');
        if (eq == std::string::npos || eq == 0) {
            fprintf(stderr, "--prop wants NAME=VALUE, not %s\n", a.c_str());
            return false;
        }
        std::string name = a.substr(0, eq);
        if (vigild::platform::current().properties->set(name.c_str(), a.c_str() + eq + 1) != 0) {
            fprintf(stderr, "property %s cannot be set\n", name.c_str());
            return false;
        }
    }
    return true;
}

void printRefusals(const std::vector<std::string>& refusals) {
    for (const std::string& line : refusals) fprintf(stderr, "modules: %s\n", line.c_str());
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Checks vigild configuration files against a set of module libraries"};
    app.set_version_flag("--version", std::string("vigild-config ") + VIGILD_VERSION);
    // --version and --help answer without a subcommand.
    app.require_subcommand(0, 1);
    std::string modules;
    std::vector<std::string> props;
    std::string file;
    bool quiet = false;

    CLI::App* check = app.add_subcommand("check", "what vigild would do with FILE");
    check->add_option("FILE", file, "the configuration file")->required();
    CLI::App* defaults = app.add_subcommand("defaults", "the document a fresh device writes");
    for (CLI::App* sub : {check, defaults}) {
        sub->add_option("--modules", modules, "folder of lib_vd_*.so module libraries")
            ->check(CLI::ExistingDirectory);
        sub->add_option("--prop", props, "a device property, NAME=VALUE (repeatable)");
    }
    check->add_flag("-q,--quiet", quiet, "leave out the changes against the defaults");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        int rc = app.exit(e);
        return rc == 0 ? 0 : 2;
    }
    if (!check->parsed() && !defaults->parsed()) {
        fprintf(stderr, "%s", app.help().c_str());
        return 2;
    }

    std::string text;
    if (check->parsed() && !readFile(file, &text)) {
        fprintf(stderr, "%s: cannot be read (or over %zu bytes)\n", file.c_str(), kFileReaderLimit);
        return 2;
    }
    vdtools::ScratchDevice device;
    if (!device.ok()) {
        fprintf(stderr, "no scratch device root under /tmp\n");
        return 2;
    }
    device.install();
    if (!setProperties(props)) return 2;
    vdtools::LogCapture quietDaemon(false);
    printRefusals(vdtools::prepareRegistry(modules));

    if (defaults->parsed()) {
        std::string document = vdtools::defaultDocument();
        if (document.empty()) return 1;
        printf("%s\n", document.c_str());
        return 0;
    }

    vdtools::LintResult result = vdtools::lintConfig(text);
    // file:line:column, as compilers print it, so editors jump to the place.
    auto print = [&](const vdtools::LintFinding& finding, const char* kind) {
        if (finding.line > 0) {
            printf("%s:%d:%d: %s: %s\n", file.c_str(), finding.line, finding.column, kind,
                   finding.text.c_str());
        } else {
            printf("%s: %s: %s\n", file.c_str(), kind, finding.text.c_str());
        }
    };
    for (const vdtools::LintFinding& finding : result.errors) print(finding, "error");
    for (const vdtools::LintFinding& finding : result.warnings) print(finding, "warning");
    if (!quiet) {
        for (const std::string& line : result.changes) {
            printf("%s: change: %s\n", file.c_str(), line.c_str());
        }
    }
    printf("%s: %s\n", file.c_str(), result.verdict.c_str());
    if (result.sound()) {
        printf("%s: sound\n", file.c_str());
        return 0;
    }
    printf("%s: %zu error(s), %zu warning(s)\n", file.c_str(), result.errors.size(),
           result.warnings.size());
    return 1;
}
