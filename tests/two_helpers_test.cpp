// Two real helpers, started at the same moment on one directory with one lock.

#include <gtest/gtest.h>

#include <windows.h>

#include <thread>

#include "tests/support/client_directory.h"

namespace talvex::test {
namespace {

TEST(TwoHelpers, WorkOneAfterTheOther) {
  ClientDirectory client;
  client.Prepare();
  const Tree before = client.AllFiles();
  ASSERT_EQ(WaitForSingleObject(client.lock.Get(), 0), WAIT_OBJECT_0);
  HelperResult results[2];
  std::thread first([&] { results[0] = client.Apply(); });
  std::thread second([&] { results[1] = client.Apply(); });
  Sleep(4'000);  // both have proven everything and wait for the lock
  EXPECT_EQ(TreeDifference(client.AllFiles(), before), "") << "changed without the lock";
  ReleaseMutex(client.lock.Get());
  first.join();
  second.join();
  // Whichever comes second finds its staged files gone.
  const HelperResult& late = results[0].exit_code == 0 ? results[1] : results[0];
  EXPECT_EQ(results[0].exit_code + results[1].exit_code, 1u);
  EXPECT_EQ(late.message,
            L"Could not atomically replace an update file.\n\nYour existing files were restored.");
  EXPECT_EQ(TreeDifference(client.ClientFiles(), ClientDirectory::FilesOf(client.new_release)), "");
}

}  // namespace
}  // namespace talvex::test
