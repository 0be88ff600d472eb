// Tests of ZvDataLinker and its two sides: construction on two attributes,
// the default conversions in both directions, derived conversions, and the
// linker's lifecycle in the registry.
#include <ZvDataLinker.h>
#include <ZvDataRegistry.h>
#include <ZvDataSubscriber.h>

#include <Message.h>

#include "DataTestSupport.h"

#include <gtest/gtest.h>

#include <string.h>

#include <memory>
#include <string>
#include <vector>

using zvtest::Code;
using zvtest::OutputCapture;
using zvtest::RecordingSubscriber;

namespace {

class ZvDataLinkerTest : public zvtest::RegistryTest
{
};

std::vector<std::string> AttributeNames()
{
	std::vector<std::string> names;
	EXPECT_NE(zv_registry, nullptr);
	EXPECT_TRUE(zv_registry->DR_Lock());
	for (int32 i = 0; i < zv_registry->DR_CountAttributes(); i++) {
		char buffer[32];
		EXPECT_EQ(zv_registry->DR_AttributeAt(i, buffer), 0);
		names.push_back(buffer);
	}
	zv_registry->DR_Unlock();
	return names;
}

// Records what each conversion was given, and scales integers by ten on
// the way from A to B.
class ScalingLinker : public ZvDataLinker
{
public:
	ScalingLinker(const char* a, const char* b) : ZvDataLinker(a, b) {}

	status_t DL_ConvertAB(ZvDataSubscriber* a, ZvDataSubscriber* b, uint32 what) override
	{
		calls.push_back({"AB", a, b, what});
		b->DS_SetIntegerData(a->DS_IntegerData() * 10, true);
		return 0;
	}

	status_t DL_ConvertBA(ZvDataSubscriber* a, ZvDataSubscriber* b, uint32 what) override
	{
		calls.push_back({"BA", a, b, what});
		a->DS_SetIntegerData(b->DS_IntegerData() / 10, true);
		return 0;
	}

	struct Call
	{
		std::string direction;
		ZvDataSubscriber* a;
		ZvDataSubscriber* b;
		uint32 what;
	};
	std::vector<Call> calls;
};

} // namespace

TEST_F(ZvDataLinkerTest, LinkerOnTwoNewNamesMakesTwoAttributesWithOneSubscriberEach)
{
	auto linker = std::make_unique<ZvDataLinker>("link-a", "link-b");
	ASSERT_NE(linker->DL_SubscriberA(), nullptr);
	ASSERT_NE(linker->DL_SubscriberB(), nullptr);
	EXPECT_EQ(AttributeNames(), (std::vector<std::string>{"link-a", "link-b"}));
	EXPECT_STREQ(linker->DL_SubscriberA()->DS_AttributeName(), "link-a");
	EXPECT_STREQ(linker->DL_SubscriberB()->DS_AttributeName(), "link-b");
	EXPECT_TRUE(linker->DL_SubscriberA()->DS_IsSubscribed());
	EXPECT_TRUE(linker->DL_SubscriberB()->DS_IsSubscribed());

	// One subscriber each: a second subscriber of A is the only one that
	// hears side A.
	RecordingSubscriber onA("link-a", 0);
	ASSERT_EQ(linker->DL_SubscriberA()->DS_SetIntegerData(3, true), 0);
	EXPECT_EQ(onA.Events(), std::vector<uint32>{1});
}

TEST_F(ZvDataLinkerTest, UpdatesReachingSideADoNotCrossToTheSecondAttribute)
{
	ZvDataLinker linker("cross-a", "cross-b");
	RecordingSubscriber onA("cross-a", 0);
	RecordingSubscriber onB("cross-b", 0);
	onB.ClearRecords();
	ASSERT_EQ(onA.DS_SetIntegerData(12, true), 0);
	ASSERT_EQ(onA.DS_SetStringData("twelve", true), 0);
	EXPECT_EQ(linker.DL_SubscriberA()->DS_IntegerData(), 12);
	EXPECT_EQ(linker.DL_SubscriberA()->DS_StringDataSize(), 6);
	EXPECT_EQ(linker.DL_SubscriberB()->DS_IntegerData(), 0);
	EXPECT_EQ(onB.DS_IntegerData(), 0);
	EXPECT_TRUE(onB.Events().empty());
}

TEST_F(ZvDataLinkerTest, SideAEventReceivedCopiesEverythingToBAndPublishesTheNamedKinds)
{
	ZvDataLinker linker("conv-a", "conv-b");
	RecordingSubscriber onA("conv-a", 0);
	RecordingSubscriber onB1("conv-b", 0);
	RecordingSubscriber onB2("conv-b", 1);
	RecordingSubscriber deafB("conv-b", 2);
	ASSERT_EQ(onA.DS_SetIntegerData(41, false), 0);
	ASSERT_EQ(onA.DS_SetFloatData(4.25, false), 0);
	ASSERT_EQ(onA.DS_SetStringData("forty-one", false), 0);
	ASSERT_EQ(onA.DS_SetRAWData("raw", 3, false), 0);
	BMessage message(Code("LINK"));
	ASSERT_EQ(onA.DS_SetMessageData(&message, false), 0);
	onB1.ClearRecords();
	onB2.ClearRecords();

	linker.DL_SubscriberA()->EventReceived(1);

	ZvDataSubscriber* sideB = linker.DL_SubscriberB();
	EXPECT_EQ(sideB->DS_IntegerData(), 41);
	EXPECT_DOUBLE_EQ(sideB->DS_FloatData(), 4.25);
	EXPECT_EQ(sideB->DS_StringDataSize(), 9);
	EXPECT_EQ(sideB->DS_RAWDataSize(), 3);
	BMessage out;
	ASSERT_EQ(sideB->DS_MessageData(&out), 0);
	EXPECT_EQ(out.what, Code("LINK"));
	for (RecordingSubscriber* s : {&onB1, &onB2}) {
		EXPECT_EQ(s->DS_IntegerData(), 41);
		EXPECT_EQ(s->Events(), std::vector<uint32>{1});
		// Only the integer was published on B.
		EXPECT_EQ(s->DS_StringDataSize(), 0);
	}
	EXPECT_EQ(deafB.DS_IntegerData(), 0);
	EXPECT_TRUE(deafB.Events().empty());
	// Side A's own attribute heard nothing.
	EXPECT_TRUE(onA.Events().empty());
}

TEST_F(ZvDataLinkerTest, SideBEventReceivedConvertsTheOtherWay)
{
	ZvDataLinker linker("back-a", "back-b");
	RecordingSubscriber onA("back-a", 0);
	RecordingSubscriber onB("back-b", 0);
	ASSERT_EQ(onB.DS_SetFloatData(9.5, false), 0);
	ASSERT_EQ(onB.DS_SetIntegerData(9, false), 0);
	onA.ClearRecords();
	linker.DL_SubscriberB()->EventReceived(2);
	EXPECT_DOUBLE_EQ(linker.DL_SubscriberA()->DS_FloatData(), 9.5);
	EXPECT_EQ(linker.DL_SubscriberA()->DS_IntegerData(), 9);
	EXPECT_DOUBLE_EQ(onA.DS_FloatData(), 9.5);
	EXPECT_EQ(onA.DS_IntegerData(), 0);
	EXPECT_EQ(onA.Events(), std::vector<uint32>{2});
}

TEST_F(ZvDataLinkerTest, DefaultConversionsReturnTheSendEventResult)
{
	ZvDataLinker linker("result-a", "result-b");
	EXPECT_EQ(linker.DL_ConvertAB(linker.DL_SubscriberA(), linker.DL_SubscriberB(), 1), -1);
	EXPECT_EQ(linker.DL_ConvertBA(linker.DL_SubscriberA(), linker.DL_SubscriberB(), 1), -1);
	EXPECT_EQ(linker.DL_ConvertAB(nullptr, linker.DL_SubscriberB(), 1), -1);
	EXPECT_EQ(linker.DL_ConvertBA(linker.DL_SubscriberA(), nullptr, 1), -1);
}

TEST_F(ZvDataLinkerTest, DerivedConversionsGetSideAAndSideBInBothDirections)
{
	ScalingLinker linker("scale-a", "scale-b");
	RecordingSubscriber onB("scale-b", 0);
	RecordingSubscriber onA("scale-a", 0);
	ASSERT_EQ(onA.DS_SetIntegerData(7, false), 0);
	linker.DL_SubscriberA()->EventReceived(1);
	EXPECT_EQ(onB.DS_IntegerData(), 70);
	ASSERT_EQ(onB.DS_SetIntegerData(500, false), 0);
	linker.DL_SubscriberB()->EventReceived(1);
	EXPECT_EQ(onA.DS_IntegerData(), 50);
	ASSERT_EQ(linker.calls.size(), 2u);
	for (const auto& call : linker.calls) {
		EXPECT_EQ(call.a, linker.DL_SubscriberA());
		EXPECT_EQ(call.b, linker.DL_SubscriberB());
		EXPECT_EQ(call.what, 1u);
	}
	EXPECT_EQ(linker.calls[0].direction, "AB");
	EXPECT_EQ(linker.calls[1].direction, "BA");
}

TEST_F(ZvDataLinkerTest, SideJoiningAnExistingAttributePullsItsData)
{
	ZvDataSubscriber existing("pull-a", 0);
	ASSERT_EQ(existing.DS_SetIntegerData(123, false), 0);
	ZvDataLinker linker("pull-a", "pull-b");
	EXPECT_EQ(linker.DL_SubscriberA()->DS_IntegerData(), 123);
	EXPECT_EQ(linker.DL_SubscriberB()->DS_IntegerData(), 0);
}

TEST_F(ZvDataLinkerTest, SideWithoutANameIsNotValidAndConversionsFailQuietly)
{
	ZvDataLinker linker("", "named-b");
	EXPECT_EQ(linker.DL_SubscriberA()->DS_AttributeName(), nullptr);
	EXPECT_TRUE(linker.DL_SubscriberB()->DS_IsSubscribed());
	RecordingSubscriber onB("named-b", 0);
	ASSERT_EQ(onB.DS_SetIntegerData(5, false), 0);
	onB.ClearRecords();
	// B to A: the copy lands in the invalid side, whose event is refused.
	linker.DL_SubscriberB()->EventReceived(1);
	EXPECT_EQ(linker.DL_ConvertBA(linker.DL_SubscriberA(), linker.DL_SubscriberB(), 1), -1);
	EXPECT_EQ(linker.DL_SubscriberA()->DS_IntegerData(), 0);
	EXPECT_TRUE(onB.Events().empty());
	// A to B: side B takes the invalid side's data and publishes it.
	linker.DL_SubscriberA()->EventReceived(1);
	EXPECT_EQ(onB.Events(), std::vector<uint32>{1});
	EXPECT_EQ(onB.DS_IntegerData(), 5);
	EXPECT_EQ(AttributeNames(), std::vector<std::string>{"named-b"});
}

TEST_F(ZvDataLinkerTest, DeletingTheLinkerUnsubscribesBothSidesAndMayEndTheRegistry)
{
	auto linker = std::make_unique<ZvDataLinker>("end-a", "end-b");
	{
		auto stays = std::make_unique<ZvDataSubscriber>("end-b", 0);
		linker.reset();
		EXPECT_EQ(AttributeNames(), std::vector<std::string>{"end-b"});
	}
	EXPECT_EQ(zv_registry, nullptr);

	linker = std::make_unique<ZvDataLinker>("end-a", "end-b");
	EXPECT_NE(zv_registry, nullptr);
	linker.reset();
	EXPECT_EQ(zv_registry, nullptr);
}
