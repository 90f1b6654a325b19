// A test module that cannot be loaded with immediate binding: it needs a
// function that nothing defines.
extern "C" int qvlplug_missing_function();

extern "C" __attribute__((visibility("default"))) int qvlplug_answer() { return qvlplug_missing_function() + 1; }
