#include <ctype.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "orv/orv.h"
#include "support/test_support.h"

namespace {

using orv::PlatformPaths;
using orv::UUIDFactory;

bool is_identity(const std::string& s) {
  if (s.size() != 32) return false;
  for (char c : s) {
    if (!isdigit(static_cast<unsigned char>(c)) && !(c >= 'a' && c <= 'f')) return false;
  }
  return true;
}

TEST(PlatformPaths, StartEmptyStoreAsGivenAndCrossThreads) {
  EXPECT_EQ(PlatformPaths::getWriteableTempPath(), "");
  EXPECT_EQ(PlatformPaths::getWriteableLibraryDataPath(), "");
  EXPECT_EQ(PlatformPaths::getWriteableUserDataPath(), "");
  std::string tmp = "/tmp/no-slash";
  PlatformPaths::setWriteableTempPath(tmp);
  PlatformPaths::setWriteableUserDataPath(std::string("/user/"));
  EXPECT_EQ(PlatformPaths::getWriteableTempPath(), "/tmp/no-slash");
  EXPECT_EQ(PlatformPaths::getWriteableUserDataPath(), "/user/");
  EXPECT_EQ(PlatformPaths::getWriteableLibraryDataPath(), "");

  // Writers and readers at once: a reader only ever sees a whole value.
  const std::string a(300, 'a'), b(5, 'b');
  std::thread writer([&] {
    for (int i = 0; i < 2000; ++i) PlatformPaths::setWriteableLibraryDataPath(i % 2 ? a : b);
  });
  for (int i = 0; i < 2000; ++i) {
    std::string seen = PlatformPaths::getWriteableLibraryDataPath();
    ASSERT_TRUE(seen.empty() || seen == a || seen == b);
  }
  writer.join();
}

TEST(UUIDFactory, UuidLayoutAndFreshness) {
  std::set<std::string> seen;
  for (int i = 0; i < 200; ++i) {
    std::string u = UUIDFactory::generateUUID();
    ASSERT_EQ(u.size(), 36u);
    for (size_t k = 0; k < u.size(); ++k) {
      if (k == 8 || k == 13 || k == 18 || k == 23) {
        ASSERT_EQ(u[k], '-') << u;
      } else {
        ASSERT_TRUE(isdigit(static_cast<unsigned char>(u[k])) || (u[k] >= 'A' && u[k] <= 'F')) << u;
      }
    }
    seen.insert(u);
  }
  EXPECT_EQ(seen.size(), 200u);
}

TEST(UUIDFactory, IdentityIsCreatedOnceAndPersists) {
  orv_test::TempDir dir;
  PlatformPaths::setWriteableLibraryDataPath(dir.path() + "/");
  std::string first = UUIDFactory::getIdentity();
  EXPECT_TRUE(is_identity(first)) << first;
  EXPECT_EQ(orv_test::read_file(dir.file("ORV_Ident.dat")), first);  // 32 bytes, no line end
  EXPECT_EQ(UUIDFactory::getIdentity(), first);

  // Longer files give their first 32 bytes, unvalidated.
  std::string stored = "ZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZ-and-more\n";
  orv_test::write_file(dir.file("ORV_Ident.dat"), stored);
  EXPECT_EQ(UUIDFactory::getIdentity(), stored.substr(0, 32));

  // Short files and zero bytes among the first 32 are replaced.
  for (const std::string& bad : {std::string(31, 'a'), std::string("abc\0", 4) + std::string(40, 'd'),
                                 std::string()}) {
    orv_test::write_file(dir.file("ORV_Ident.dat"), bad);
    std::string fresh = UUIDFactory::getIdentity();
    EXPECT_TRUE(is_identity(fresh)) << fresh;
    EXPECT_NE(fresh, first);
    EXPECT_EQ(orv_test::read_file(dir.file("ORV_Ident.dat")), fresh);
  }
}

TEST(UUIDFactory, UnwritableLocationsGiveANewIdentityEachCall) {
  orv_test::TempDir dir;
  orv_test::write_file(dir.file("plain"), "x");
  // The parent of the identity file is a regular file: nothing can open it,
  // not even as root.
  PlatformPaths::setWriteableLibraryDataPath(dir.file("plain") + "/");
  std::string a = UUIDFactory::getIdentity(), b = UUIDFactory::getIdentity();
  EXPECT_TRUE(is_identity(a));
  EXPECT_TRUE(is_identity(b));
  EXPECT_NE(a, b);

  // A directory where the file is expected: opened for reading, never written.
  ASSERT_EQ(mkdir(dir.file("ORV_Ident.dat").c_str(), 0700), 0);
  PlatformPaths::setWriteableLibraryDataPath(dir.path() + "/");
  a = UUIDFactory::getIdentity();
  b = UUIDFactory::getIdentity();
  EXPECT_TRUE(is_identity(a));
  EXPECT_NE(a, b);
  struct stat st;
  ASSERT_EQ(stat(dir.file("ORV_Ident.dat").c_str(), &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
}

TEST(UUIDFactory, EmptyDataPathUsesTheWorkingDirectory) {
  orv_test::TempDir dir;
  PlatformPaths::setWriteableLibraryDataPath("");
  char old_cwd[4096];
  ASSERT_NE(getcwd(old_cwd, sizeof old_cwd), nullptr);
  ASSERT_EQ(chdir(dir.path().c_str()), 0);
  std::string id = UUIDFactory::getIdentity();
  std::string stored = orv_test::read_file(dir.file("ORV_Ident.dat"));
  ASSERT_EQ(chdir(old_cwd), 0);
  EXPECT_EQ(stored, id);
}

TEST(UUIDFactory, ConcurrentFirstCallsShareOneIdentity) {
  for (int round = 0; round < 20; ++round) {
    orv_test::TempDir dir;
    PlatformPaths::setWriteableLibraryDataPath(dir.path() + "/");
    const int kThreads = 16;
    std::vector<std::string> ids(kThreads);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&ids, i] { ids[static_cast<size_t>(i)] = UUIDFactory::getIdentity(); });
    }
    for (auto& t : threads) t.join();
    ASSERT_TRUE(is_identity(ids[0]));
    for (const std::string& id : ids) ASSERT_EQ(id, ids[0]);
    ASSERT_EQ(orv_test::read_file(dir.file("ORV_Ident.dat")), ids[0]);
  }
}

}  // namespace
