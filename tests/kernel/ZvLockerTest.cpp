// Tests of ZvLocker, the recursive owner-tracking lock.
#include <ZvLocker.h>

#include <gtest/gtest.h>

#include "TestSupport.h"

TEST(ZvLocker, RecursiveLockNeedsAsManyUnlocks)
{
	ZvLocker locker;
	EXPECT_TRUE(locker.Lock());
	EXPECT_TRUE(locker.Lock());
	EXPECT_TRUE(locker.Lock());
	locker.Unlock();
	locker.Unlock();
	EXPECT_TRUE(locker.IsLocked());
	EXPECT_EQ(locker.CountLock(), 1);
	locker.Unlock();
	EXPECT_FALSE(locker.IsLocked());
}
