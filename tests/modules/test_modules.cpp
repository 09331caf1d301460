// Broken module libraries for the loader tests. Built twice: with
// ORV_TEST_MISNAMED, a prepare function that registers under another name
// and counts its runs (a fresh load starts at 0); without, no prepare
// function at all.
#include "orv/orv.h"

#ifdef ORV_TEST_MISNAMED
static int prepare_count = 0;

using namespace orv::Memory;

extern "C" __attribute__((visibility("default"))) void VeltoSpeechTestMisnamed_INIT() {
  ++prepare_count;
  orv::SpeechSDKModuleLoader::registerLoadFunction(
      [](orv_weak_ptr<orv::Context>, orv_weak_ptr<orv::EventManager>) { return orv_shared_ptr<orv::EventManager>(); },
      "SomeOtherName");
}

extern "C" __attribute__((visibility("default"))) int orv_test_prepare_count() { return prepare_count; }
#else
extern "C" __attribute__((visibility("default"))) int orv_test_no_prepare_marker() { return 1; }
#endif
