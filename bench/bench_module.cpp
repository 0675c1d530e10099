// A module library for the start-up run: one synthetic module, named at build time.
#include "synthetic_module.h"

#ifndef VDBENCH_MODULE_NAME
#define VDBENCH_MODULE_NAME "BenchModule"
#endif

extern "C" __attribute__((visibility("default"))) Module* getModule() {
    static vdbench::SyntheticModule module(VDBENCH_MODULE_NAME);
    return &module;
}
