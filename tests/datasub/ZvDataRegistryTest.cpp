// Tests of ZvDataRegistry and the global zv_registry: attribute entries,
// subscriber chains, the initial pull and push, unsubscription and the
// registry's own lifecycle.
#include <ZvDataRegistry.h>
#include <ZvDataSubscriber.h>

#include <Message.h>

#include "DataTestSupport.h"

#include <gtest/gtest.h>

#include <string.h>

#include <algorithm>
#include <deque>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using zvtest::Code;
using zvtest::DestroyEmptyRegistry;
using zvtest::EventLog;
using zvtest::MakeUnsubscribed;
using zvtest::OutputCapture;
using zvtest::RecordingSubscriber;

namespace {

class ZvDataRegistryTest : public zvtest::RegistryTest
{
};

// Gives s one integer, float, string, raw block and message, all derived
// from seed, without propagating (s must not be subscribed, or be local).
void FillData(ZvDataSubscriber* s, int64 seed)
{
	ASSERT_EQ(s->DS_SetIntegerData(seed, false), 0);
	ASSERT_EQ(s->DS_SetFloatData(seed + 0.5, false), 0);
	const std::string text = "value " + std::to_string(seed);
	ASSERT_EQ(s->DS_SetStringData(text.c_str(), false), 0);
	const int32 raw[3] = {int32(seed), int32(seed * 2), int32(seed * 3)};
	ASSERT_EQ(s->DS_SetRAWData(raw, sizeof(raw), false), 0);
	BMessage message(Code("MSG0"));
	message.AddInt64("seed", seed);
	ASSERT_EQ(s->DS_SetMessageData(&message, false), 0);
}

// Expects s to hold exactly the data FillData(seed) gives.
void ExpectData(ZvDataSubscriber* s, int64 seed)
{
	EXPECT_EQ(s->DS_IntegerData(), seed);
	EXPECT_DOUBLE_EQ(s->DS_FloatData(), seed + 0.5);
	char text[64] = {};
	ASSERT_EQ(s->DS_StringData(text, -1), 0);
	EXPECT_EQ(std::string(text), "value " + std::to_string(seed));
	int32 raw[3] = {};
	ASSERT_EQ(s->DS_RAWDataSize(), int32(sizeof(raw)));
	ASSERT_EQ(s->DS_RAWData(raw, -1), 0);
	EXPECT_EQ(raw[0], int32(seed));
	EXPECT_EQ(raw[2], int32(seed * 3));
	BMessage message;
	ASSERT_EQ(s->DS_MessageData(&message), 0);
	EXPECT_EQ(message.what, Code("MSG0"));
	int64 stored = -1;
	EXPECT_EQ(message.FindInt64("seed", &stored), B_OK);
	EXPECT_EQ(stored, seed);
}

std::vector<std::string> AttributeNames()
{
	std::vector<std::string> names;
	if (zv_registry == nullptr)
		return names;
	EXPECT_TRUE(zv_registry->DR_Lock());
	for (int32 i = 0; i < zv_registry->DR_CountAttributes(); i++) {
		char buffer[32];
		EXPECT_EQ(zv_registry->DR_AttributeAt(i, buffer), 0);
		names.push_back(buffer);
	}
	zv_registry->DR_Unlock();
	return names;
}

bool Subscribed(ZvDataSubscriber* s)
{
	EXPECT_NE(zv_registry, nullptr);
	EXPECT_TRUE(zv_registry->DR_Lock());
	const bool result = zv_registry->DR_SubscriberSubscribed(s);
	zv_registry->DR_Unlock();
	return result;
}

} // namespace

TEST_F(ZvDataRegistryTest, RegistryIsNullUntilTheFirstSubscriptionAndGoesWithTheLastAttribute)
{
	EXPECT_EQ(zv_registry, nullptr);
	{
		ZvDataSubscriber first("lifecycle", 0);
		ASSERT_NE(zv_registry, nullptr);
		ZvDataRegistry* registry = zv_registry;
		{
			ZvDataSubscriber second("lifecycle", 0);
			ZvDataSubscriber other("lifecycle-other", 0);
			EXPECT_EQ(zv_registry, registry);
			EXPECT_EQ(registry->DR_CountAttributes(), 2);
		}
		// One attribute is left: the registry stays.
		EXPECT_EQ(zv_registry, registry);
		EXPECT_EQ(registry->DR_CountAttributes(), 1);
	}
	EXPECT_EQ(zv_registry, nullptr);

	// The next subscription anywhere makes a fresh registry.
	ZvDataSubscriber again("lifecycle", 0);
	EXPECT_NE(zv_registry, nullptr);
	EXPECT_TRUE(again.DS_IsSubscribed());
}

TEST_F(ZvDataRegistryTest, RefusedSubscriptionStillCreatesTheRegistryWithNoAttributes)
{
	auto refused = MakeUnsubscribed("refused");
	ASSERT_NE(zv_registry, nullptr);
	EXPECT_EQ(zv_registry->DR_CountAttributes(), 0);
	EXPECT_FALSE(refused->DS_IsSubscribed());
	refused.reset();
	// Nothing was subscribed, so nothing unsubscribed it away.
	EXPECT_NE(zv_registry, nullptr);
	DestroyEmptyRegistry();
	EXPECT_EQ(zv_registry, nullptr);
}

TEST_F(ZvDataRegistryTest, FirstSubscriberGetsNoDataAndNoEventWhateverItsFlags)
{
	for (uint32 flags : {0x0u, 0x1000u, 0x1u}) {
		SCOPED_TRACE(flags);
		auto first = MakeUnsubscribed("first");
		FillData(first.get(), 5);
		first->ClearRecords();
		ASSERT_EQ(first->DS_Subscribe(flags, true), 0);
		EXPECT_TRUE(first->Events().empty());
		EXPECT_EQ(first->SubscribedCalls(), std::vector<bool>{true});
		ExpectData(first.get(), 5);
		EXPECT_EQ(AttributeNames(), std::vector<std::string>{"first"});
		first.reset();
		EXPECT_EQ(zv_registry, nullptr);
	}
}

TEST_F(ZvDataRegistryTest, SecondSubscriberPullsAllFiveKindsWithOneEventWhenNotified)
{
	ZvDataSubscriber source("pull", 0);
	ASSERT_TRUE(source.DS_IsSubscribed());
	FillData(&source, 42);

	auto notified = MakeUnsubscribed("pull");
	ASSERT_EQ(notified->DS_Subscribe(0, true), 0);
	ExpectData(notified.get(), 42);
	EXPECT_EQ(notified->Events(), std::vector<uint32>{255});
	// The data was in place before the event was raised.
	EXPECT_EQ(notified->IntegersAtEvents(), std::vector<int64>{42});
	EXPECT_EQ(notified->SubscribedCalls(), std::vector<bool>{true});

	auto quiet = MakeUnsubscribed("pull");
	ASSERT_EQ(quiet->DS_Subscribe(0, false), 0);
	ExpectData(quiet.get(), 42);
	EXPECT_TRUE(quiet->Events().empty());
}

TEST_F(ZvDataRegistryTest, NewcomerPullsFromTheFirstModeZeroOrTwoSubscriberFromTheHead)
{
	// Flags 0x10 keep each one's data local, so every one holds its own.
	ZvDataSubscriber mode0("modes", 0x10);
	ZvDataSubscriber mode2("modes", 0x12);
	ZvDataSubscriber mode1("modes", 0x11);
	ASSERT_EQ(mode0.DS_SetIntegerData(100, false), 0);
	ASSERT_EQ(mode2.DS_SetIntegerData(200, false), 0);
	ASSERT_EQ(mode1.DS_SetIntegerData(300, false), 0);

	// Chain from the head: mode 1, mode 2, mode 0.
	ZvDataSubscriber newcomer("modes", 0);
	EXPECT_EQ(newcomer.DS_IntegerData(), 200);
}

TEST_F(ZvDataRegistryTest, ModesOneAndThreeToFifteenAreNeverSources)
{
	ZvDataSubscriber mode0("sources", 0x10);
	ASSERT_EQ(mode0.DS_SetIntegerData(1000, false), 0);
	std::vector<std::unique_ptr<ZvDataSubscriber>> others;
	for (uint32 mode : {1u, 3u, 7u, 15u}) {
		others.push_back(std::make_unique<ZvDataSubscriber>("sources", 0x10 | mode));
		ASSERT_EQ(others.back()->DS_SetIntegerData(mode, false), 0);
	}
	ZvDataSubscriber newcomer("sources", 0);
	EXPECT_EQ(newcomer.DS_IntegerData(), 1000);

	// With only non-sources in the chain, nothing is pulled.
	auto lonely = std::make_unique<ZvDataSubscriber>("sources-none", 0x11);
	ASSERT_EQ(lonely->DS_SetIntegerData(9, false), 0);
	ZvDataSubscriber another("sources-none", 0x13);
	ASSERT_EQ(another.DS_SetIntegerData(8, false), 0);
	ZvDataSubscriber empty("sources-none", 0);
	EXPECT_EQ(empty.DS_IntegerData(), 0);
}

TEST_F(ZvDataRegistryTest, PushingNewcomerPublishesToEveryReceiverAndPullsNothing)
{
	auto receiver0 = std::make_unique<RecordingSubscriber>("push", 0);
	auto receiver1 = std::make_unique<RecordingSubscriber>("push", 1);
	auto bystander = std::make_unique<RecordingSubscriber>("push", 2);
	ASSERT_EQ(receiver0->DS_SetIntegerData(-1, false), 0);
	ASSERT_EQ(bystander->DS_SetIntegerData(-2, false), 0);
	receiver0->ClearRecords();
	receiver1->ClearRecords();

	auto pusher = MakeUnsubscribed("push");
	FillData(pusher.get(), 77);
	ASSERT_EQ(pusher->DS_Subscribe(0x1000, true), 0);

	ExpectData(pusher.get(), 77);
	EXPECT_TRUE(pusher->Events().empty());
	ExpectData(receiver0.get(), 77);
	ExpectData(receiver1.get(), 77);
	EXPECT_EQ(receiver0->Events(), std::vector<uint32>{255});
	EXPECT_EQ(receiver1->Events(), std::vector<uint32>{255});
	EXPECT_EQ(bystander->DS_IntegerData(), -2);
	EXPECT_TRUE(bystander->Events().empty());

	// Without notify the data still arrives, silently.
	auto quietPusher = MakeUnsubscribed("push");
	FillData(quietPusher.get(), 78);
	receiver0->ClearRecords();
	ASSERT_EQ(quietPusher->DS_Subscribe(0x1000, false), 0);
	ExpectData(receiver0.get(), 78);
	EXPECT_TRUE(receiver0->Events().empty());
}

TEST_F(ZvDataRegistryTest, NewcomerWithModeTwoOrMoreOrOtherJoinFlagsNeitherPullsNorPushes)
{
	ZvDataSubscriber existing("still", 0);
	ASSERT_EQ(existing.DS_SetIntegerData(10, false), 0);
	for (uint32 flags : {0x2u, 0x3u, 0xFu, 0x1002u, 0x2000u, 0x3000u}) {
		SCOPED_TRACE(flags);
		auto newcomer = MakeUnsubscribed("still");
		ASSERT_EQ(newcomer->DS_SetIntegerData(20, false), 0);
		ASSERT_EQ(newcomer->DS_Subscribe(flags, true), 0);
		EXPECT_EQ(newcomer->DS_IntegerData(), 20);
		EXPECT_EQ(existing.DS_IntegerData(), 10);
		EXPECT_TRUE(newcomer->Events().empty());
	}
}

TEST_F(ZvDataRegistryTest, NeverRegisteredSubscriberIsRefusedByEveryRegistryOperation)
{
	ZvDataSubscriber keeper("refusal", 0);
	auto refused = MakeUnsubscribed("refusal");
	ASSERT_TRUE(zv_registry->DR_Lock());
	EXPECT_EQ(zv_registry->DR_Subscribe(refused.get(), true), -1);
	EXPECT_EQ(zv_registry->DR_UnSubscribe(refused.get()), -1);
	EXPECT_FALSE(zv_registry->DR_SubscriberSubscribed(refused.get()));
	EXPECT_EQ(zv_registry->DR_CountAttributes(), 1);
	zv_registry->DR_Unlock();

	// A subscribed subscriber whose flags gain 0x0100 becomes invisible to
	// the registry as well (the failed DS_Subscribe still stores them).
	OutputCapture capture(2);
	EXPECT_EQ(keeper.DS_Subscribe(0x0100, true), -1);
	EXPECT_EQ(capture.Finish(), "ZvDataSubscriber::Subscribe(): Subscription failed.\n");
	ASSERT_TRUE(zv_registry->DR_Lock());
	EXPECT_FALSE(zv_registry->DR_SubscriberSubscribed(&keeper));
	EXPECT_EQ(zv_registry->DR_UnSubscribe(&keeper), -1);
	zv_registry->DR_Unlock();
	// Restore flags the registry accepts, so the keeper can leave.
	OutputCapture again(2);
	EXPECT_EQ(keeper.DS_Subscribe(0, true), -1);
	EXPECT_EQ(again.Finish(), "ZvDataSubscriber::Subscribe(): Already subscribed.\n");
}

TEST_F(ZvDataRegistryTest, RegistryRefusesNullAndAlreadyChainedSubscribers)
{
	ZvDataSubscriber member("chained", 0);
	ASSERT_TRUE(zv_registry->DR_Lock());
	EXPECT_EQ(zv_registry->DR_Subscribe(nullptr, true), -1);
	EXPECT_EQ(zv_registry->DR_UnSubscribe(nullptr), -1);
	EXPECT_FALSE(zv_registry->DR_SubscriberSubscribed(nullptr));
	// Linking a subscriber twice would make its chain a cycle.
	EXPECT_EQ(zv_registry->DR_Subscribe(&member, true), -1);
	EXPECT_TRUE(zv_registry->DR_SubscriberSubscribed(&member));
	EXPECT_EQ(zv_registry->DR_UnSubscribeAllExceptServer(nullptr), 0);
	zv_registry->DR_Unlock();
}

TEST_F(ZvDataRegistryTest, UnsubscribingTheHeadMakesTheNextOlderSubscriberTheHead)
{
	auto oldest = std::make_unique<ZvDataSubscriber>("head", 0x10);
	auto middle = std::make_unique<ZvDataSubscriber>("head", 0x10);
	auto head = std::make_unique<ZvDataSubscriber>("head", 0x10);
	ASSERT_EQ(oldest->DS_SetIntegerData(1, false), 0);
	ASSERT_EQ(middle->DS_SetIntegerData(2, false), 0);
	ASSERT_EQ(head->DS_SetIntegerData(3, false), 0);

	ASSERT_EQ(head->DS_UnSubscribe(), 0);
	EXPECT_FALSE(head->DS_IsSubscribed());
	EXPECT_TRUE(middle->DS_IsSubscribed());
	EXPECT_TRUE(oldest->DS_IsSubscribed());
	// A newcomer pulls from the head, which is now the middle one.
	ZvDataSubscriber newcomer("head", 0);
	EXPECT_EQ(newcomer.DS_IntegerData(), 2);
}

TEST_F(ZvDataRegistryTest, UnsubscribingTheMiddleOneJoinsItsNeighbours)
{
	EventLog log;
	auto oldest = std::make_unique<RecordingSubscriber>("middle", 0, "oldest", &log);
	auto middle = std::make_unique<RecordingSubscriber>("middle", 0, "middle", &log);
	auto head = std::make_unique<RecordingSubscriber>("middle", 0, "head", &log);
	ASSERT_EQ(middle->DS_UnSubscribe(), 0);
	EXPECT_EQ(middle->SubscribedCalls(), std::vector<bool>{false});

	ASSERT_EQ(head->DS_SetIntegerData(5, true), 0);
	ASSERT_EQ(oldest->DS_SetIntegerData(6, true), 0);
	EXPECT_EQ(log.Entries(), (std::vector<std::string>{"oldest:1", "head:1"}));
	EXPECT_EQ(head->DS_IntegerData(), 6);
	EXPECT_EQ(middle->DS_IntegerData(), 0);
	EXPECT_TRUE(middle->Events().empty());

	// The middle one can join again, at the head.
	ASSERT_EQ(middle->DS_Subscribe(0, true), 0);
	EXPECT_EQ(middle->DS_IntegerData(), 6);
}

TEST_F(ZvDataRegistryTest, UnsubscribeAllExceptServerRemovesOnlyNonServers)
{
	auto server = std::make_unique<RecordingSubscriber>("servers", 0x10000);
	auto client = std::make_unique<RecordingSubscriber>("servers", 0);
	auto client2 = std::make_unique<RecordingSubscriber>("servers", 0x1);
	ZvDataSubscriber elsewhere("servers-elsewhere", 0);

	ASSERT_TRUE(zv_registry->DR_Lock());
	EXPECT_EQ(zv_registry->DR_UnSubscribeAllExceptServer("no such attribute"), 0);
	EXPECT_EQ(zv_registry->DR_CountAttributes(), 2);
	EXPECT_EQ(zv_registry->DR_UnSubscribeAllExceptServer("servers"), 0);
	EXPECT_TRUE(zv_registry->DR_SubscriberSubscribed(server.get()));
	EXPECT_FALSE(zv_registry->DR_SubscriberSubscribed(client.get()));
	EXPECT_FALSE(zv_registry->DR_SubscriberSubscribed(client2.get()));
	EXPECT_TRUE(zv_registry->DR_SubscriberSubscribed(&elsewhere));
	EXPECT_EQ(zv_registry->DR_CountAttributes(), 2);
	zv_registry->DR_Unlock();
	EXPECT_EQ(client->SubscribedCalls(), std::vector<bool>{false});
	EXPECT_TRUE(server->SubscribedCalls().empty());
}

TEST_F(ZvDataRegistryTest, UnsubscribeAllExceptServerUnderLockMayDestroyTheRegistry)
{
	auto a = std::make_unique<ZvDataSubscriber>("last-one", 0);
	auto b = std::make_unique<ZvDataSubscriber>("last-one", 0);
	ZvDataRegistry* registry = zv_registry;
	ASSERT_TRUE(registry->DR_Lock());
	ASSERT_TRUE(registry->DR_Lock());
	EXPECT_EQ(registry->DR_UnSubscribeAllExceptServer("last-one"), 0);
	// The registry went with its last attribute, and with it both lock
	// levels this thread held: no DR_Unlock may follow.
	EXPECT_EQ(zv_registry, nullptr);
	EXPECT_FALSE(a->DS_IsSubscribed());
	EXPECT_FALSE(b->DS_IsSubscribed());

	// Another thread can use a new registry at once: nothing is left held.
	zvtest::Watchdog watchdog(std::chrono::seconds(30), "registry after teardown");
	std::thread other([] {
		ZvDataSubscriber s("after-teardown", 0);
		EXPECT_TRUE(s.DS_IsSubscribed());
	});
	other.join();
	EXPECT_EQ(zv_registry, nullptr);
}

TEST_F(ZvDataRegistryTest, AttributeAtRefusesBadIndexesAndLeavesTheBufferAlone)
{
	ZvDataSubscriber a("attr-a", 0);
	ZvDataSubscriber b("attr-b", 0);
	ZvDataSubscriber a2("attr-a", 0);
	ASSERT_TRUE(zv_registry->DR_Lock());
	ASSERT_EQ(zv_registry->DR_CountAttributes(), 2);
	char buffer[32];
	memset(buffer, 'x', sizeof(buffer));
	EXPECT_EQ(zv_registry->DR_AttributeAt(-1, buffer), -1);
	EXPECT_EQ(zv_registry->DR_AttributeAt(zv_registry->DR_CountAttributes(), buffer), -1);
	EXPECT_EQ(zv_registry->DR_AttributeAt(0, nullptr), -1);
	for (char c : buffer) {
		EXPECT_EQ(c, 'x');
	}
	ASSERT_EQ(zv_registry->DR_AttributeAt(0, buffer), 0);
	EXPECT_STREQ(buffer, "attr-a");
	ASSERT_EQ(zv_registry->DR_AttributeAt(1, buffer), 0);
	EXPECT_STREQ(buffer, "attr-b");
	zv_registry->DR_Unlock();
}

TEST_F(ZvDataRegistryTest, ManyAttributesKeepCreationOrderAndAllGoAway)
{
	std::vector<std::unique_ptr<ZvDataSubscriber>> subscribers;
	std::vector<std::string> expected;
	for (int i = 0; i < 45; i++) {
		expected.push_back("many-" + std::to_string(i));
		subscribers.push_back(std::make_unique<ZvDataSubscriber>(expected.back().c_str(), 0));
	}
	EXPECT_EQ(AttributeNames(), expected);

	// Removing from the front keeps the others in order.
	for (int i = 0; i < 20; i++)
		subscribers[i].reset();
	expected.erase(expected.begin(), expected.begin() + 20);
	EXPECT_EQ(AttributeNames(), expected);
	subscribers.clear();
	EXPECT_EQ(zv_registry, nullptr);
}

TEST_F(ZvDataRegistryTest, SubscriberSubscribedFollowsTheChain)
{
	ZvDataSubscriber a("follow", 0);
	auto b = std::make_unique<ZvDataSubscriber>("follow", 0);
	ZvDataSubscriber stranger("follow-other", 0);
	EXPECT_TRUE(Subscribed(&a));
	EXPECT_TRUE(Subscribed(b.get()));
	ASSERT_EQ(b->DS_UnSubscribe(), 0);
	EXPECT_FALSE(Subscribed(b.get()));
	EXPECT_TRUE(Subscribed(&a));
	// An unsubscribed subscriber of an attribute that exists is not in it.
	ZvDataSubscriber invalid(nullptr, 0);
	EXPECT_FALSE(Subscribed(&invalid));
}

namespace {

TEST_F(ZvDataRegistryTest, ThousandsOfAttributesAreEachFoundAndKeepTheirOrder)
{
	const int kAttributes = 3000;
	std::vector<std::unique_ptr<ZvDataSubscriber>> firsts;
	std::vector<std::unique_ptr<ZvDataSubscriber>> seconds;
	std::vector<std::string> expected;
	for (int i = 0; i < kAttributes; i++) {
		expected.push_back("attribute-" + std::to_string(i));
		firsts.push_back(std::make_unique<ZvDataSubscriber>(expected.back().c_str(), 0));
	}
	// A second subscriber of every attribute joins the first one's chain and
	// pulls its data.
	for (int i = 0; i < kAttributes; i++) {
		ASSERT_EQ(firsts[i]->DS_SetIntegerData(i, false), 0);
		seconds.push_back(std::make_unique<ZvDataSubscriber>(expected[i].c_str(), 0));
		ASSERT_EQ(seconds[i]->DS_IntegerData(), i);
	}
	EXPECT_EQ(AttributeNames(), expected);
	for (int i = 0; i < kAttributes; i += 97) {
		EXPECT_TRUE(Subscribed(firsts[i].get()));
		EXPECT_TRUE(Subscribed(seconds[i].get()));
		ASSERT_EQ(seconds[i]->DS_SetIntegerData(-i, false), 0);
		ASSERT_EQ(seconds[i]->DS_SetIntegerData(-i - 1, true), 0);
		EXPECT_EQ(firsts[i]->DS_IntegerData(), -i - 1);
	}

	// Attributes go in an order of their own; the others keep theirs.
	for (int i = 0; i < kAttributes; i += 3) {
		firsts[i].reset();
		seconds[i].reset();
		expected[i].clear();
	}
	expected.erase(std::remove(expected.begin(), expected.end(), std::string()), expected.end());
	EXPECT_EQ(AttributeNames(), expected);
	// A name that went is made again at the end of the list.
	firsts[0] = std::make_unique<ZvDataSubscriber>("attribute-0", 0);
	expected.push_back("attribute-0");
	EXPECT_EQ(AttributeNames(), expected);
	EXPECT_TRUE(Subscribed(firsts[0].get()));
	firsts.clear();
	seconds.clear();
	EXPECT_EQ(zv_registry, nullptr);
}

TEST_F(ZvDataRegistryTest, AttributesLeavingFromBothEndsKeepTheOthersInOrder)
{
	const int kAttributes = 200;
	std::deque<std::unique_ptr<ZvDataSubscriber>> subscribers;
	std::deque<std::string> expected;
	for (int i = 0; i < kAttributes; i++) {
		expected.push_back("ends-" + std::to_string(i));
		subscribers.push_back(std::make_unique<ZvDataSubscriber>(expected.back().c_str(), 0));
	}
	// The oldest and the newest go in turn; after each, the list holds the
	// rest in their order of creation.
	for (int i = 0; i < kAttributes - 1; i++) {
		if (i % 2 == 0) {
			subscribers.pop_front();
			expected.pop_front();
		} else {
			subscribers.pop_back();
			expected.pop_back();
		}
		ASSERT_EQ(AttributeNames(), std::vector<std::string>(expected.begin(), expected.end()))
		    << "after " << i + 1 << " removals";
	}
	EXPECT_TRUE(Subscribed(subscribers.front().get()));
	subscribers.clear();
	EXPECT_EQ(zv_registry, nullptr);
}

TEST_F(ZvDataRegistryTest, NamesAreCutAt31CharactersAndLongerNamesFindNoAttribute)
{
	const std::string name31(31, 'q');
	const std::string name32(32, 'q');
	const std::string name40(40, 'q');
	ZvDataSubscriber a(name40.c_str(), 0);
	ZvDataSubscriber b(name31.c_str(), 0);
	ASSERT_EQ(a.DS_SetIntegerData(40, true), 0);
	// Both names are cut to the same 31 characters: one attribute.
	EXPECT_EQ(AttributeNames(), std::vector<std::string>{name31});
	EXPECT_EQ(b.DS_IntegerData(), 40);
	EXPECT_TRUE(Subscribed(&a));
	EXPECT_TRUE(Subscribed(&b));

	// A name longer than 31 characters matches no attribute.
	ASSERT_TRUE(zv_registry->DR_Lock());
	EXPECT_EQ(zv_registry->DR_UnSubscribeAllExceptServer(name32.c_str()), 0);
	EXPECT_EQ(zv_registry->DR_UnSubscribeAllExceptServer(name40.c_str()), 0);
	zv_registry->DR_Unlock();
	EXPECT_TRUE(Subscribed(&a));
	EXPECT_TRUE(Subscribed(&b));

	ASSERT_TRUE(zv_registry->DR_Lock());
	EXPECT_EQ(zv_registry->DR_UnSubscribeAllExceptServer(name31.c_str()), 0);
	if (zv_registry != nullptr)
		zv_registry->DR_Unlock();
	EXPECT_EQ(zv_registry, nullptr);
}

} // namespace
