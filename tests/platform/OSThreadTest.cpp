// Tests of the kernel kit's threads.
#include <OS.h>

#include <atomic>

#include <gtest/gtest.h>

#include "TestSupport.h"

namespace {

int32 ReturnData(void* data)
{
	return static_cast<int32>(reinterpret_cast<intptr_t>(data));
}

} // namespace

TEST(OSThread, WaitForThreadGivesExitValue)
{
	zvtest::Watchdog watchdog(std::chrono::seconds(20));
	const thread_id thread = spawn_thread(&ReturnData, "exit value", B_NORMAL_PRIORITY,
	                                      reinterpret_cast<void*>(intptr_t{42}));
	ASSERT_GT(thread, 0);
	EXPECT_EQ(resume_thread(thread), B_OK);
	status_t value = 0;
	EXPECT_EQ(wait_for_thread(thread, &value), B_OK);
	EXPECT_EQ(value, 42);
}
