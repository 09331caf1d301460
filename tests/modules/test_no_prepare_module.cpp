// A module library without a prepare function.
extern "C" __attribute__((visibility("default"))) int orv_test_no_prepare_marker() { return 1; }
