/// @file
/// A library that loads and has nothing of a plug-in.

extern "C" __attribute__((visibility("default"))) int rvxNothing() { return 0; }
