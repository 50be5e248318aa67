// A shared library that is not a protocol plug-in: it exports none of the
// entry points a host looks for.
extern "C" __attribute__((visibility("default"))) int NotAProtocolPlugin() {
  return 42;
}
