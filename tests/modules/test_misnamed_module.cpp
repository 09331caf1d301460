// A module library whose prepare function registers under another name. It
// counts how often its prepare function ran since the library was loaded, so
// a test can tell a fresh load from a second open of a still-loaded library.
#include "orv/orv.h"

namespace {

int prepare_count = 0;

orv::Memory::orv_shared_ptr<orv::EventManager> load(
    orv::Memory::orv_weak_ptr<orv::Context>, orv::Memory::orv_weak_ptr<orv::EventManager>) {
  return orv::Memory::orv_shared_ptr<orv::EventManager>();
}

}  // namespace

extern "C" __attribute__((visibility("default"))) void VeltoSpeechTestMisnamed_INIT() {
  ++prepare_count;
  orv::SpeechSDKModuleLoader::registerLoadFunction(load, "SomeOtherName");
}

extern "C" __attribute__((visibility("default"))) int orv_test_prepare_count() {
  return prepare_count;
}
