// Tests of the kernel kit's semaphores.
#include <OS.h>

#include <gtest/gtest.h>

#include "TestSupport.h"

TEST(OSSemaphore, CreateAcquireReleaseRoundTrip)
{
	const sem_id sem = create_sem(1, "round trip");
	ASSERT_GT(sem, 0);
	EXPECT_EQ(acquire_sem(sem), B_OK);
	int32 count = -1;
	EXPECT_EQ(get_sem_count(sem, &count), B_OK);
	EXPECT_EQ(count, 0);
	EXPECT_EQ(release_sem(sem), B_OK);
	EXPECT_EQ(get_sem_count(sem, &count), B_OK);
	EXPECT_EQ(count, 1);
	EXPECT_EQ(delete_sem(sem), B_OK);
	EXPECT_EQ(acquire_sem(sem), B_BAD_SEM_ID);
}
