// The test programs' main: sets up OpenSSL and libcurl once on the main thread
// before any test runs, as a host application must (liborv never does).
//
// OpenSSL's exit-time cleanup is turned off. The global pool's threads end
// during static destruction, after OpenSSL's exit handler would have run:
// with the cleanup on, a pool thread that ended then would take its
// per-thread OpenSSL state (error queue, random generators) with it unfreed,
// and LeakSanitizer would report that, now and then, as a leak.
#include <curl/curl.h>
#include <openssl/crypto.h>

#include <cstdio>

#include "gtest/gtest.h"

int main(int argc, char** argv) {
  if (OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr) != 1 || curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK)
    return fprintf(stderr, "test main: OpenSSL or libcurl set-up failed\n"), 1;
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
