// DataTestSupport.h: helpers shared by the data subscription tests.
//
//  - RecordingSubscriber: a subscriber that records every DS_EventReceived
//    (code, and what its own getters said at that moment) and every
//    DS_Subscribed call, optionally into a log shared by several
//    subscribers to check the order of a propagation.
//  - RegistryTest: a fixture that requires zv_registry to be null before and
//    after each test, since the registry is process-wide.
//  - CountField: how many values a message holds under a name.
//  - MakeUnsubscribed: a valid subscriber that is not in the registry,
//    ready to get data and to subscribe later with chosen flags.
#ifndef ZVKIT_DATA_TEST_SUPPORT_H
#define ZVKIT_DATA_TEST_SUPPORT_H

#include <ZvDataRegistry.h>
#include <ZvDataSubscriber.h>

#include <Message.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace zvtest {

// A four-character code, most significant byte first ("DSEV").
constexpr uint32 Code(const char (&text)[5])
{
	return (uint32(uint8(text[0])) << 24) | (uint32(uint8(text[1])) << 16) |
	       (uint32(uint8(text[2])) << 8) | uint32(uint8(text[3]));
}

// How many values the message holds under name; 0 when it has none.
inline int32 CountField(const BMessage& message, const char* name)
{
	type_code type = 0;
	int32 count = 0;
	if (message.GetInfo(name, &type, &count) != B_OK)
		return 0;
	return count;
}

struct EventLog
{
	std::mutex lock;
	std::vector<std::string> entries;

	void Add(const std::string& entry)
	{
		std::lock_guard<std::mutex> guard(lock);
		entries.push_back(entry);
	}

	std::vector<std::string> Entries()
	{
		std::lock_guard<std::mutex> guard(lock);
		return entries;
	}
};

class RecordingSubscriber : public ZvDataSubscriber
{
public:
	RecordingSubscriber(const char* name, uint32 flags, const char* label = "",
	                    EventLog* log = nullptr)
	    : ZvDataSubscriber(name, flags), fLabel(label), fLog(log)
	{
	}

	using ZvDataSubscriber::operator=;

	~RecordingSubscriber() override
	{
		// Unsubscribe here, while the derived hooks still exist.
		DS_UnSubscribe();
	}

	void DS_EventReceived(uint32 what) override
	{
		const int64 integer = DS_IntegerData();
		{
			std::lock_guard<std::mutex> guard(fLock);
			fEvents.push_back(what);
			fIntegerAtEvent.push_back(integer);
		}
		if (fLog != nullptr)
			fLog->Add(fLabel + ":" + std::to_string(what));
		// The hook runs without fLock: it may call into the library, which
		// may call DS_Subscribed.
		if (fHook)
			fHook(this, what);
	}

	void DS_Subscribed(bool subscribed) override
	{
		std::lock_guard<std::mutex> guard(fLock);
		fSubscribedCalls.push_back(subscribed);
	}

	std::vector<uint32> Events()
	{
		std::lock_guard<std::mutex> guard(fLock);
		return fEvents;
	}

	std::vector<int64> IntegersAtEvents()
	{
		std::lock_guard<std::mutex> guard(fLock);
		return fIntegerAtEvent;
	}

	std::vector<bool> SubscribedCalls()
	{
		std::lock_guard<std::mutex> guard(fLock);
		return fSubscribedCalls;
	}

	void ClearRecords()
	{
		std::lock_guard<std::mutex> guard(fLock);
		fEvents.clear();
		fIntegerAtEvent.clear();
		fSubscribedCalls.clear();
	}

	// Runs inside DS_EventReceived, in the propagating thread.
	void SetHook(void (*hook)(RecordingSubscriber*, uint32)) { fHook = hook; }

	// Free for the hook's use.
	std::vector<status_t> hookResults;

private:
	std::string fLabel;
	EventLog* fLog;
	std::mutex fLock;
	std::vector<uint32> fEvents;
	std::vector<int64> fIntegerAtEvent;
	std::vector<bool> fSubscribedCalls;
	void (*fHook)(RecordingSubscriber*, uint32) = nullptr;
};

// A valid subscriber on name that is not subscribed. It is made with flags
// 0x0100 (never registered), which the registry refuses; the refusal's
// message on standard error is swallowed. The registry that the attempt
// creates, if it was missing, stays; DestroyEmptyRegistry removes it.
inline std::unique_ptr<RecordingSubscriber>
MakeUnsubscribed(const char* name, const char* label = "", EventLog* log = nullptr)
{
	OutputCapture capture(2);
	auto subscriber = std::make_unique<RecordingSubscriber>(name, 0x0100, label, log);
	capture.Finish();
	return subscriber;
}

// A registry left with no attributes (created by a refused subscription)
// is deleted only by an unsubscription; one round trip of a throw-away
// subscriber does that.
inline void DestroyEmptyRegistry()
{
	if (zv_registry != nullptr && zv_registry->DR_CountAttributes() == 0) {
		ZvDataSubscriber temporary("zvtest-registry-reset", 0);
	}
}

class RegistryTest : public ::testing::Test
{
protected:
	void SetUp() override { ASSERT_EQ(zv_registry, nullptr) << "a previous test left a registry"; }

	void TearDown() override
	{
		DestroyEmptyRegistry();
		EXPECT_EQ(zv_registry, nullptr) << "the test left subscribers behind";
	}
};

} // namespace zvtest

#endif // ZVKIT_DATA_TEST_SUPPORT_H
