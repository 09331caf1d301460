/// @file
/// SpeechSDKModuleLoader: turns a module name into the module's running
/// EventManager.
///
/// A module registers a load function under its name. When a name is asked for
/// and nothing is registered, the loader opens B + "libVeltoSpeech" + N + ".so"
/// (B the base path, joined by plain concatenation: a directory must end in
/// "/"; empty means the dynamic linker's search path), calls the library's
/// exported prepare function "VeltoSpeech" + N + "_INIT" (which is expected to
/// register the load function) and looks again, once. Every failure gives an
/// empty pointer and the same error text; the debug log tells the causes
/// apart. A library whose prepare function ran stays open; loading the same
/// name from disk again closes the earlier handle first.
///
/// Thread safety: loadModule and registerLoadFunction are serialised by one
/// recursive mutex, held across the prepare and load functions (module creation
/// is one at a time; those functions may call back into the loader).
/// setDynLibBasePath takes no lock: call it once, before loading modules.
#ifndef ORV_CORE_MODULE_LOADER_DYNAMIC_LIB__NIX_ORV_DYNAMIC_MODULE_LOADER_H
#define ORV_CORE_MODULE_LOADER_DYNAMIC_LIB__NIX_ORV_DYNAMIC_MODULE_LOADER_H

#include <map>
#include <string>

#include "core/orv_Context.h"
#include "core/orv_EventManager.h"
#include "core/orv_api.h"
#include "core/utility/Memory/orv_shared_ptr_base.h"
#include "core/utility/Threads/Synchronization/AppMutex.h"

namespace orv {

class ORV_API SpeechSDKModuleLoader {
 public:
  typedef Memory::orv_shared_ptr<EventManager> (*LoadFunction)(Memory::orv_weak_ptr<Context>,
                                                               Memory::orv_weak_ptr<EventManager>);

  static void setDynLibBasePath(const std::string& path);
  /// A second registration under one name replaces the first.
  static void registerLoadFunction(LoadFunction fn, const std::string& name);
  /// The module's event manager as its load function returns it (possibly
  /// empty, errorMessage untouched); empty with errorMessage set when no load
  /// function can be found.
  static Memory::orv_shared_ptr<EventManager> loadModule(const std::string& name,
                                                         Memory::orv_weak_ptr<Context> context,
                                                         Memory::orv_weak_ptr<EventManager> eventManager,
                                                         std::string& errorMessage);

  static std::map<std::string, LoadFunction> m_registeredLoaders;
  static Threads::Synchronization::AppMutex m_LoaderMapMutex;
};

}  // namespace orv

#endif  // ORV_CORE_MODULE_LOADER_DYNAMIC_LIB__NIX_ORV_DYNAMIC_MODULE_LOADER_H
