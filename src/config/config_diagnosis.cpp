#include "config/config_diagnosis.h"

#include <jansson.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <map>
#include <set>
#include <utility>

#include "config/config_validation.h"
#include "config/json_helpers.h"
#include "core/module_registry.h"
#include "storage/storage_root.h"

namespace {

using vigild::config::JsonPtr;
using vigild::config::orEmpty;
using vigild::config::stringMember;

// Jansson keeps no positions for what it parsed, so a second pass over the text (which Jansson
// has already accepted) notes where each member and element begins. Paths join object keys
// and array indexes with a unit separator, which no sensible key contains.
constexpr char kSep = '\x1f';

struct Place {
    int line = 0;
    int column = 0;
};

class PositionIndex {
  public:
    // Notes the places of `wanted` and of their parents only: a large file must not cost a
    // map of every node.
    PositionIndex(const char* text, const std::vector<std::string>& wanted) : p_(text) {
        for (std::string path : wanted) {
            for (;;) {
                wanted_.insert(path);
                size_t cut = path.rfind(kSep);
                if (cut == std::string::npos) break;
                path.resize(cut);
            }
        }
        skipBlanks();
        value("");
    }

    // The place of `path`, or of its nearest recorded parent.
    Place at(std::string path) const {
        for (;;) {
            auto found = places_.find(path);
            if (found != places_.end()) return found->second;
            size_t cut = path.rfind(kSep);
            if (cut == std::string::npos) return Place{1, 1};
            path.resize(cut);
        }
    }

  private:
    void advance() {
        if (*p_ == '\n') {
            line_++;
            column_ = 1;
        } else {
            column_++;
        }
        p_++;
    }
    void skipBlanks() {
        while (*p_ == ' ' || *p_ == '\t' || *p_ == '\n' || *p_ == '\r') advance();
    }
    void appendUtf8(std::string& out, unsigned code) {
        if (code < 0x80) {
            out += static_cast<char>(code);
        } else if (code < 0x800) {
            out += static_cast<char>(0xC0 | (code >> 6));
            out += static_cast<char>(0x80 | (code & 0x3F));
        } else {
            out += static_cast<char>(0xE0 | (code >> 12));
            out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (code & 0x3F));
        }
    }
    // A string token, decoded as far as keys need it (surrogate pairs are left approximate).
    std::string string() {
        std::string out;
        advance();  // the opening quote
        while (*p_ != '\0' && *p_ != '"') {
            if (*p_ != '\\') {
                out += *p_;
                advance();
                continue;
            }
            advance();
            const char escaped = *p_;
            if (escaped == '\0') break;
            advance();
            switch (escaped) {
                case 'n':
                    out += '\n';
                    break;
                case 't':
                    out += '\t';
                    break;
                case 'r':
                    out += '\r';
                    break;
                case 'b':
                    out += '\b';
                    break;
                case 'f':
                    out += '\f';
                    break;
                case 'u': {
                    unsigned code = 0;
                    for (int i = 0; i < 4 && isxdigit(static_cast<unsigned char>(*p_)); i++) {
                        code = code * 16 +
                               static_cast<unsigned>(isdigit(static_cast<unsigned char>(*p_))
                                                         ? *p_ - '0'
                                                         : (tolower(*p_) - 'a' + 10));
                        advance();
                    }
                    appendUtf8(out, code);
                    break;
                }
                default:
                    out += escaped;
            }
        }
        if (*p_ == '"') advance();
        return out;
    }
    void note(const std::string& path, Place place, bool replace) {
        if (wanted_.count(path) == 0) return;
        if (replace) {
            places_.insert_or_assign(path, place);
        } else {
            places_.emplace(path, place);
        }
    }
    void value(const std::string& path) {
        note(path, Place{line_, column_}, false);
        if (*p_ == '{') {
            advance();
            skipBlanks();
            while (*p_ == '"') {
                Place key{line_, column_};
                std::string child = path + kSep + string();
                // A repeated key: the last one is what Jansson kept.
                note(child, key, true);
                skipBlanks();
                if (*p_ == ':') advance();
                skipBlanks();
                value(child);
                skipBlanks();
                if (*p_ == ',') advance();
                skipBlanks();
            }
            if (*p_ == '}') advance();
        } else if (*p_ == '[') {
            advance();
            skipBlanks();
            for (size_t i = 0; *p_ != '\0' && *p_ != ']'; i++) {
                value(path + kSep + std::to_string(i));
                skipBlanks();
                if (*p_ == ',') advance();
                skipBlanks();
            }
            if (*p_ == ']') advance();
        } else if (*p_ == '"') {
            string();
        } else {
            while (*p_ != '\0' && strchr(",]} \t\r\n", *p_) == nullptr) advance();
        }
    }

    const char* p_;
    int line_ = 1;
    int column_ = 1;
    std::set<std::string> wanted_;
    std::map<std::string, Place> places_;
};

std::string quoted(const char* text) { return "\"" + std::string(orEmpty(text)) + "\""; }

std::string join(std::initializer_list<std::string> parts) {
    std::string out;
    for (const std::string& part : parts) out += kSep + part;
    return out;
}

bool isIndexOf(const char* text, size_t count) {
    if (*text == '\0' || strlen(text) > 9 || (text[0] == '0' && text[1] != '\0')) return false;
    for (const char* p = text; *p != '\0'; ++p) {
        if (*p < '0' || *p > '9') return false;
    }
    return static_cast<size_t>(atoi(text)) < count;
}

class Diagnosis {
  public:
    Diagnosis(const char* text, const json_t* root) : text_(text), root_(root) {}

    void add(bool rejects, const std::string& path, std::string reason) {
        (rejects ? rejecting_ : others_).push_back({rejects, path, std::move(reason)});
    }

    // One module's settings, by name and type as the daemon's file load matches them.
    void settings(const modulePair& entry, const char* module, const json_t* settings) {
        const std::string base = join({module, "settings"});
        if (!json_is_array(settings)) {
            add(false, base,
                "\"settings\" of module " + quoted(module) +
                    " is not an array: every setting keeps its value");
            return;
        }
        bool ended = false;
        for (size_t k = 0; k < json_array_size(settings) && !ended; k++) {
            const json_t* item = json_array_get(settings, k);
            if (stringMember(item, "type") != nullptr && stringMember(item, "name") == nullptr) {
                add(true, base + kSep + std::to_string(k),
                    "a setting of module " + quoted(module) +
                        " has a \"type\" but no \"name\": the whole file is refused");
                ended = true;
            }
        }
        if (ended) return;
        std::vector<bool> used(json_array_size(settings), false);
        for (const Module::config& setting : entry.settings.configs) {
            bool found = false;
            bool mistyped = false;
            for (size_t k = 0; k < json_array_size(settings); k++) {
                const json_t* item = json_array_get(settings, k);
                const char* name = stringMember(item, "name");
                const char* type = stringMember(item, "type");
                if (name == nullptr || strcmp(name, orEmpty(setting.name)) != 0) continue;
                const std::string at = base + kSep + std::to_string(k);
                used[k] = true;
                if (type == nullptr || strcmp(type, orEmpty(setting.type)) != 0) {
                    mistyped = true;
                    add(false, at + kSep + "type",
                        "setting " + quoted(setting.name) + " of module " + quoted(module) +
                            " has type " + quoted(type) + ", not " + quoted(setting.type) +
                            ": it is ignored and the setting keeps its value");
                    continue;
                }
                found = true;
                const char* value = stringMember(item, "value");
                if (value == nullptr) {
                    add(true, at,
                        "setting " + quoted(setting.name) + " of module " + quoted(module) +
                            " has no string \"value\"");
                } else if (!valueFitsType(orEmpty(setting.type), value)) {
                    add(false, at + kSep + "value",
                        "setting " + quoted(setting.name) + " of module " + quoted(module) + ": " +
                            quoted(value) + " is not a valid " + setting.type);
                } else if (strcmp(orEmpty(setting.type), "list") == 0 &&
                           !isIndexOf(value, setting.options.size())) {
                    add(false, at + kSep + "value",
                        "setting " + quoted(setting.name) + " of module " + quoted(module) + ": " +
                            quoted(value) + " is not one of its " +
                            std::to_string(setting.options.size()) + " options (0 to " +
                            std::to_string(static_cast<int>(setting.options.size()) - 1) + ")");
                }
            }
            if (!found && !mistyped) {
                add(false, base,
                    "setting " + quoted(setting.name) + " of module " + quoted(module) +
                        " is missing: it keeps its value");
            }
        }
        for (size_t k = 0; k < used.size(); k++) {
            const char* name = stringMember(json_array_get(settings, k), "name");
            if (!used[k] && name != nullptr) {
                add(false, base + kSep + std::to_string(k),
                    "module " + quoted(module) + " has no setting " + quoted(name) +
                        ": it is ignored");
            }
        }
    }

    void modules() {
        std::vector<std::string> unknown;
        const char* key;
        json_t* member;
        json_object_foreach(const_cast<json_t*>(root_), key, member) {
            bool known = false;
            for (const modulePair& entry : moduleRegistry) {
                known = known || strcmp(orEmpty(entry.module->getName()), key) == 0;
            }
            if (!known) unknown.push_back(key);
        }
        size_t nextUnknown = 0;
        for (const modulePair& entry : moduleRegistry) {
            const char* module = orEmpty(entry.module->getName());
            const json_t* object = json_object_get(root_, module);
            if (object == nullptr) {
                // Only Alder devices must carry the QuickTap module.
                const bool optional = strcmp(module, "QuickTapModule") == 0 && !isDeviceAlder();
                if (nextUnknown < unknown.size()) {
                    const std::string& other = unknown[nextUnknown++];
                    add(!optional, join({other}),
                        "unknown module " + quoted(other.c_str()) + " where module " +
                            quoted(module) + " is missing");
                } else {
                    add(!optional, "",
                        "module " + quoted(module) + " is missing" +
                            (optional ? ": its settings keep their values" : ""));
                }
                continue;
            }
            const json_t* settings = json_object_get(object, "settings");
            if (settings == nullptr) {
                add(true, join({module}), "module " + quoted(module) + " has no \"settings\"");
                continue;
            }
            this->settings(entry, module, settings);
        }
        for (size_t i = nextUnknown; i < unknown.size(); i++) {
            add(false, join({unknown[i]}),
                "unknown module " + quoted(unknown[i].c_str()) + ": it is ignored");
        }
    }

    // The problems with their places, found in one pass over the text.
    std::vector<ConfigProblem> take() {
        rejecting_.insert(rejecting_.end(), others_.begin(), others_.end());
        std::vector<std::string> paths;
        for (const Found& found : rejecting_) paths.push_back(found.path);
        PositionIndex index(text_, paths);
        std::vector<ConfigProblem> problems;
        for (Found& found : rejecting_) {
            Place place = index.at(found.path);
            problems.push_back({place.line, place.column, found.rejects, std::move(found.reason)});
        }
        return problems;
    }

  private:
    struct Found {
        bool rejects;
        std::string path;
        std::string reason;
    };
    const char* text_;
    const json_t* root_;
    std::vector<Found> rejecting_;
    std::vector<Found> others_;
};

}  // namespace

std::vector<ConfigProblem> diagnoseConfigFile(const char* text) {
    if (text == nullptr || text[0] == '\0') {
        return {{0, 0, true, "the file is empty or cannot be read"}};
    }
    json_error_t error;
    JsonPtr root(json_loads(text, 0, &error));
    if (root == nullptr) {
        return {{error.line, error.column, true, std::string("not valid JSON: ") + error.text}};
    }
    if (!json_is_object(root.get())) {
        return {{1, 1, true, "the file is not a JSON object of modules"}};
    }
    Diagnosis diagnosis(text, root.get());
    diagnosis.modules();
    return diagnosis.take();
}

ConfigProblem placeOf(const char* text, const std::vector<std::string>& path) {
    std::string key;
    for (const std::string& part : path) key += kSep + part;
    Place place = PositionIndex(text, {key}).at(key);
    return {place.line, place.column, false, ""};
}

const ConfigProblem* firstRejection(const std::vector<ConfigProblem>& problems) {
    for (const ConfigProblem& problem : problems) {
        if (problem.rejects) return &problem;
    }
    return nullptr;
}

std::string describeProblem(const ConfigProblem& problem) {
    if (problem.line <= 0) return problem.reason;
    return "line " + std::to_string(problem.line) + ", column " + std::to_string(problem.column) +
           ": " + problem.reason;
}
