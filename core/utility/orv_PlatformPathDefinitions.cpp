#include "core/utility/orv_PlatformPathDefinitions.h"

#include "core/utility/Threads/Synchronization/AppLock.h"

namespace orv {

using Threads::Synchronization::AppLock;
using Threads::Synchronization::AppMutex;

std::string PlatformPaths::_TMP_DATA_PATH;
std::string PlatformPaths::_LIBRARY_DATA_PATH;
std::string PlatformPaths::_USER_DATA_PATH;
AppMutex PlatformPaths::pathMutex(false);

namespace {

std::string read_path(const std::string& path) {
  AppLock lock(&PlatformPaths::pathMutex);
  return path;
}

void write_path(std::string& target, const std::string& path) {
  AppLock lock(&PlatformPaths::pathMutex);
  target = path;
}

}  // namespace

std::string PlatformPaths::getWriteableTempPath() { return read_path(_TMP_DATA_PATH); }

std::string PlatformPaths::getWriteableLibraryDataPath() { return read_path(_LIBRARY_DATA_PATH); }

std::string PlatformPaths::getWriteableUserDataPath() { return read_path(_USER_DATA_PATH); }

void PlatformPaths::setWriteableTempPath(std::string& path) { write_path(_TMP_DATA_PATH, path); }

void PlatformPaths::setWriteableLibraryDataPath(std::string& path) {
  write_path(_LIBRARY_DATA_PATH, path);
}

void PlatformPaths::setWriteableUserDataPath(std::string& path) { write_path(_USER_DATA_PATH, path); }

void PlatformPaths::setWriteableTempPath(const std::string& path) {
  write_path(_TMP_DATA_PATH, path);
}

void PlatformPaths::setWriteableLibraryDataPath(const std::string& path) {
  write_path(_LIBRARY_DATA_PATH, path);
}

void PlatformPaths::setWriteableUserDataPath(const std::string& path) {
  write_path(_USER_DATA_PATH, path);
}

}  // namespace orv
