/// @file
/// PlatformPaths: the three process-wide directories where the library and
/// its modules may write (temporary, library data, user data), set by the
/// application. All empty until set.
///
/// Paths are used as prefixes by plain concatenation ("dir/" + "file"), so a
/// directory path should end with "/"; the setters store what they are given.
///
/// Thread safety: every getter and setter holds pathMutex for the copy or the
/// assignment only, so any thread may call them at any time.
#ifndef ORV_CORE_UTILITY_ORV_PLATFORMPATHDEFINITIONS_H
#define ORV_CORE_UTILITY_ORV_PLATFORMPATHDEFINITIONS_H

#include <string>

#include "core/orv_api.h"
#include "core/utility/Threads/Synchronization/AppMutex.h"

namespace orv {

class ORV_API PlatformPaths {
 public:
  static std::string getWriteableTempPath();
  static std::string getWriteableLibraryDataPath();
  static std::string getWriteableUserDataPath();
  static void setWriteableTempPath(std::string& path);
  static void setWriteableLibraryDataPath(std::string& path);
  static void setWriteableUserDataPath(std::string& path);
  /// The same for constant strings and temporaries.
  static void setWriteableTempPath(const std::string& path);
  static void setWriteableLibraryDataPath(const std::string& path);
  static void setWriteableUserDataPath(const std::string& path);

  static std::string _TMP_DATA_PATH;
  static std::string _LIBRARY_DATA_PATH;
  static std::string _USER_DATA_PATH;
  /// Non-recursive; guards the three strings.
  static Threads::Synchronization::AppMutex pathMutex;
};

}  // namespace orv

#endif  // ORV_CORE_UTILITY_ORV_PLATFORMPATHDEFINITIONS_H
