#include "core/Module_Loader/Dynamic_Lib__nix/orv_Dynamic_Module_Loader.h"

#include <dlfcn.h>

#include "core/utility/Threads/Synchronization/AppLock.h"
#include "core/utility/orv_log.h"

namespace orv {

using Memory::orv_shared_ptr;
using Memory::orv_weak_ptr;
using Threads::Synchronization::AppLock;

std::map<std::string, SpeechSDKModuleLoader::LoadFunction> SpeechSDKModuleLoader::m_registeredLoaders;
Threads::Synchronization::AppMutex SpeechSDKModuleLoader::m_LoaderMapMutex(true);

// Handles are kept only so that a later load of the same name closes the
// earlier one first; they are never closed at unload.
static std::map<std::string, void*> orv_loaded_module_library_handles;
static std::string orv_ModuleLoader_dynLibBasePath;

void SpeechSDKModuleLoader::setDynLibBasePath(const std::string& path) {
  orv_ModuleLoader_dynLibBasePath = path;
}

void SpeechSDKModuleLoader::registerLoadFunction(LoadFunction fn, const std::string& name) {
  AppLock lock(&m_LoaderMapMutex);
  ORV_LOG_DEBUG("[DEBUG]-[%s][%s:83]REGISTERING LOADER FOR MODULE %s\n", name.c_str());
  m_registeredLoaders[name] = fn;
}

// Opens the module's library and runs its prepare function. False when the
// library or its prepare function is missing.
static bool open_module_library(const std::string& name) {
  std::string file_name = orv_ModuleLoader_dynLibBasePath + "libVeltoSpeech" + name + ".so";
  std::string symbol_name = "VeltoSpeech" + name + "_INIT";
  ORV_LOG_DEBUG("[DEBUG]-[%s][%s:20][MODULE_LOAD] try load: %s\n", name.c_str());

  auto earlier = orv_loaded_module_library_handles.find(name);
  if (earlier != orv_loaded_module_library_handles.end()) {
    dlclose(earlier->second);
    orv_loaded_module_library_handles.erase(earlier);
  }
  ORV_LOG_DEBUG("[DEBUG]-[%s][%s:32][MODULE_LOAD] libName: %s, prepare function: %s\n",
                file_name.c_str(), symbol_name.c_str());

  void* handle = dlopen(file_name.c_str(), RTLD_LAZY);
  if (handle == nullptr) {
    ORV_LOG_DEBUG("[DEBUG]-[%s][%s:53][MODULE_LOAD] no lib handle\n");
    return false;
  }
  ORV_LOG_DEBUG("[DEBUG]-[%s][%s:38][MODULE_LOAD] got lib handle\n");
  void* symbol = dlsym(handle, symbol_name.c_str());
  if (symbol == nullptr) {
    ORV_LOG_DEBUG("[DEBUG]-[%s][%s:47][MODULE_LOAD] no prepare function\n");
    dlclose(handle);
    return false;
  }
  ORV_LOG_DEBUG("[DEBUG]-[%s][%s:41][MODULE_LOAD] got prepare function\n");
  reinterpret_cast<void (*)()>(symbol)();
  orv_loaded_module_library_handles[name] = handle;
  return true;
}

orv_shared_ptr<EventManager> SpeechSDKModuleLoader::loadModule(const std::string& name,
                                                               orv_weak_ptr<Context> context,
                                                               orv_weak_ptr<EventManager> eventManager,
                                                               std::string& errorMessage) {
  AppLock lock(&m_LoaderMapMutex);
  ORV_LOG_DEBUG("[DEBUG]-[%s][%s:66][MODULE_LOAD] try to get module %s\n", name.c_str());

  auto found = m_registeredLoaders.find(name);
  if (found == m_registeredLoaders.end() && open_module_library(name) &&
      !m_registeredLoaders.empty()) {
    found = m_registeredLoaders.find(name);
  }
  if (found != m_registeredLoaders.end()) {
    // The load function runs while the lock is held, by design.
    LoadFunction load = found->second;
    return load(context, eventManager);
  }
  errorMessage = "Module loader not registered for module " + name +
                 " make sure you have linked required libraries!";
  return orv_shared_ptr<EventManager>();
}

}  // namespace orv
