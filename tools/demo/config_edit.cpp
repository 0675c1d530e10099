// vd-config-edit FILE MODULE SETTING VALUE
//
// Prints the configuration document of FILE with the value of SETTING of MODULE replaced, as
// the companion service would hand it to the daemon with "config_set:". Exit status 1 when
// the file is not a document or has no such setting.
#include <jansson.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

int main(int argc, char** argv) {
    if (argc != 5) {
        fprintf(stderr, "usage: %s FILE MODULE SETTING VALUE\n", argv[0]);
        return 2;
    }
    json_error_t error;
    json_t* root = json_load_file(argv[1], 0, &error);
    if (root == nullptr) {
        fprintf(stderr, "%s: line %d: %s\n", argv[1], error.line, error.text);
        return 1;
    }
    json_t* settings = json_object_get(json_object_get(root, argv[2]), "settings");
    bool found = false;
    for (size_t i = 0; i < json_array_size(settings); i++) {
        json_t* entry = json_array_get(settings, i);
        const char* name = json_string_value(json_object_get(entry, "name"));
        if (name != nullptr && strcmp(name, argv[3]) == 0) {
            json_object_set_new(entry, "value", json_string(argv[4]));
            found = true;
        }
    }
    if (!found) {
        fprintf(stderr, "%s: no setting \"%s\" in module \"%s\"\n", argv[1], argv[3], argv[2]);
        json_decref(root);
        return 1;
    }
    char* text = json_dumps(root, 0);
    json_decref(root);
    if (text == nullptr) return 1;
    puts(text);
    free(text);
    return 0;
}
