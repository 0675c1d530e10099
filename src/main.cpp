#include "core/vigild.h"

// Arguments are not read: vigild is configured by properties and its configuration file.
int main() { return vigildMain(); }
