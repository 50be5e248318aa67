// A plug-in author's own GoogleTest suite: the conformance suite of the
// installed package against the plug-in built here, in one line.
#include "host/conformance/gtest.h"

PLUGHOST_CONFORMANCE_TESTS(ExamplePlugin, EXAMPLE_PLUGIN, "");
