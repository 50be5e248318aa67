// What a plug-in author writes: the whole suite in one line.
#include "host/conformance/gtest.h"

PLUGHOST_CONFORMANCE_TESTS(MemoryPlugin, MEMORY_PLUGIN, "");
