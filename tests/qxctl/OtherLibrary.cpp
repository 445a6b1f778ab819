// A library that loads but is not a provider module.
extern "C" __attribute__((visibility("default"))) int other_library() { return 0; }
