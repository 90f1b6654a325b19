// A test module without a banner.
extern "C" __attribute__((visibility("default"))) int qvlplug_answer() { return 7; }
