// Lookups by name in messages of every size: a message of many items answers
// from a name index, a small one by walking its list. These tests compare
// every lookup with a plain walk over a model of the items, after random
// sequences of every operation that changes the items, across the size where
// the index comes into use; and they check that the index never changes the
// order, the flat bytes or the dump.
#include <ZvMessage.h>

#include "MessageTestSupport.h"
#include "TestSupport.h"
#include "messaging/NameIndex.h"

#include <gtest/gtest.h>

#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using zvtest::FlatBytes;
using zvtest::Latch;
using zvtest::Watchdog;

const type_code kRawType = 0x52415754;

// One item as the message should hold it.
struct ModelItem
{
	std::string name;
	type_code type;
	std::vector<uint8> bytes;
};

std::string StoredName(const char* name)
{
	if (name == nullptr)
		return "@@@Unnamed";
	return std::string(name).substr(0, 63);
}

// The items in order, searched the plain way: whole, case-sensitive names,
// type equal or ZV_ANY_TYPE, matches counted in order.
class Model
{
public:
	const ModelItem* Find(const char* name, type_code type, int32 index) const
	{
		if (name == nullptr || index < 0)
			return nullptr;
		int32 matches = 0;
		for (const ModelItem& item : items) {
			if (item.name != name || (type != ZV_ANY_TYPE && item.type != type))
				continue;
			if (matches++ == index)
				return &item;
		}
		return nullptr;
	}

	int32 Position(const char* name, int32 index) const
	{
		int32 matches = 0;
		for (size_t i = 0; i < items.size(); i++) {
			if (items[i].name == name && matches++ == index)
				return static_cast<int32>(i);
		}
		return -1;
	}

	int32 CountNames(type_code type) const
	{
		std::vector<std::string> names;
		for (const ModelItem& item : items) {
			if (type != ZV_ANY_TYPE && item.type != type)
				continue;
			bool known = false;
			for (const std::string& name : names)
				known = known || name == item.name;
			if (!known)
				names.push_back(item.name);
		}
		return static_cast<int32>(names.size());
	}

	std::vector<ModelItem> items;
};

std::string Repeat(char c, size_t count)
{
	return std::string(count, c);
}

// Names that meet at the 63-character cut: the 64- and 70-character names are
// stored as the 63-character one.
const std::string kName62 = Repeat('n', 62);
const std::string kName63 = Repeat('n', 63);
const std::string kName64 = Repeat('n', 64);
const std::string kName70 = Repeat('n', 70);

class LookupFuzzer
{
public:
	explicit LookupFuzzer(uint32 seed, int distinctNames)
	    : fRandom(seed), fDistinct(distinctNames), fMessage(0x4C4F4F4B)
	{
	}

	void Run(int steps)
	{
		for (int step = 0; step < steps; step++) {
			Step(&fMessage, &fModel);
			CheckSome();
			if (::testing::Test::HasFailure())
				return;
			if (step % 64 == 63)
				CheckAll();
		}
		CheckAll();
	}

private:
	int Below(int limit) { return static_cast<int>(fRandom() % static_cast<uint32>(limit)); }

	// A name for an operation, null now and then.
	std::string PickName(bool* isNull)
	{
		*isNull = false;
		switch (Below(12)) {
		case 0:
			*isNull = true;
			return "";
		case 1:
			return kName62;
		case 2:
			return kName63;
		case 3:
			return kName64;
		case 4:
			return kName70;
		case 5:
			return "";
		case 6:
			return "@@@Unnamed";
		case 7:
			return "a";
		default:
			return "field" + std::to_string(Below(fDistinct));
		}
	}

	void Add(ZvMessage* message, Model* model)
	{
		bool isNull;
		const std::string name = PickName(&isNull);
		const char* n = isNull ? nullptr : name.c_str();
		ModelItem item{StoredName(n), 0, {}};
		switch (Below(4)) {
		case 0: {
			const int32 value = static_cast<int32>(fRandom());
			message->AddInt32(n, value);
			item.type = ZV_INT32_TYPE;
			item.bytes.resize(4);
			memcpy(item.bytes.data(), &value, 4);
			break;
		}
		case 1: {
			const std::string text = "s" + std::to_string(fRandom() % 1000);
			message->AddString(n, text.c_str());
			item.type = ZV_STRING_TYPE;
			item.bytes.assign(text.c_str(), text.c_str() + text.size() + 1);
			break;
		}
		case 2: {
			const int16 value = static_cast<int16>(fRandom());
			message->AddInt16(n, value);
			item.type = ZV_INT16_TYPE;
			item.bytes.resize(2);
			memcpy(item.bytes.data(), &value, 2);
			break;
		}
		default: {
			std::vector<uint8> raw(Below(6));
			for (uint8& byte : raw)
				byte = static_cast<uint8>(fRandom());
			message->_AddData(n, kRawType, static_cast<int32>(raw.size()),
			                  raw.empty() ? "" : static_cast<const void*>(raw.data()));
			item.type = kRawType;
			item.bytes = raw;
			break;
		}
		}
		model->items.push_back(item);
	}

	void Step(ZvMessage* message, Model* model)
	{
		const int choice = Below(100);
		bool isNull;
		if (choice < 55) {
			Add(message, model);
		} else if (choice < 65) {
			const std::string name = PickName(&isNull);
			const char* n = isNull ? nullptr : name.c_str();
			const int32 index = Below(4) - (Below(8) == 0 ? 1 : 0);
			const int32 value = static_cast<int32>(fRandom());
			const ModelItem* expected = model->Find(n, ZV_INT32_TYPE, index);
			EXPECT_EQ(expected != nullptr, message->ReplaceInt32(n, index, value));
			if (expected != nullptr)
				memcpy(const_cast<ModelItem*>(expected)->bytes.data(), &value, 4);
		} else if (choice < 78) {
			const std::string name = PickName(&isNull);
			const char* n = isNull ? nullptr : name.c_str();
			// Mostly the last value of the name, sometimes any.
			type_code unused;
			int32 count = 0;
			message->GetInfo(n, &unused, &count);
			const int32 index = Below(3) == 0 ? Below(count + 2) - 1 : count - 1;
			const int32 at = n == nullptr || index < 0 ? -1 : model->Position(n, index);
			EXPECT_EQ(at >= 0, message->RemoveData(n, index));
			if (at >= 0)
				model->items.erase(model->items.begin() + at);
		} else if (choice < 82) {
			const std::string name = PickName(&isNull);
			const char* n = isNull ? nullptr : name.c_str();
			bool any = false;
			for (size_t i = 0; n != nullptr && i < model->items.size();) {
				if (model->items[i].name == n) {
					model->items.erase(model->items.begin() + static_cast<ptrdiff_t>(i));
					any = true;
				} else {
					i++;
				}
			}
			EXPECT_EQ(any, message->RemoveName(n));
		} else if (choice < 86) {
			// Merging with a small or a large other message.
			ZvMessage other(1);
			Model otherModel;
			const int count = Below(2) == 0 ? Below(5) : 20 + Below(30);
			for (int i = 0; i < count; i++)
				Add(&other, &otherModel);
			if (Below(2) == 0) {
				*message += other;
			} else {
				ZvMessage sum = *message + other;
				*message = sum;
			}
			model->items.insert(model->items.end(), otherModel.items.begin(),
			                    otherModel.items.end());
		} else if (choice < 89) {
			// A copy answers as the original does, then replaces it.
			ZvMessage copy(*message);
			Check(copy, *model);
			*message = copy;
		} else if (choice < 92) {
			// Assignment of an unrelated message.
			ZvMessage other(2);
			Model otherModel;
			const int count = Below(60);
			for (int i = 0; i < count; i++)
				Add(&other, &otherModel);
			FindSome(other);
			*message = other;
			*model = otherModel;
		} else if (choice < 96) {
			// Unflatten over the current items, from a block of another size.
			ZvMessage other(3);
			Model otherModel;
			const int count = Below(80);
			for (int i = 0; i < count; i++)
				Add(&other, &otherModel);
			const std::vector<uint8> bytes = FlatBytes(other);
			ASSERT_TRUE(Below(2) == 0 ? message->Unflatten(bytes.data())
			                          : message->Unflatten(bytes.data(), bytes.size()));
			*model = otherModel;
		} else if (choice < 97) {
			message->MakeEmpty();
			model->items.clear();
		} else {
			// Operator-: a copy without one name.
			const std::string name = PickName(&isNull);
			const char* n = isNull ? nullptr : name.c_str();
			ZvMessage difference = *message - n;
			*message = difference;
			for (size_t i = 0; n != nullptr && i < model->items.size();) {
				if (model->items[i].name == n)
					model->items.erase(model->items.begin() + static_cast<ptrdiff_t>(i));
				else
					i++;
			}
		}
	}

	// Lookups made only so that the message makes its index.
	void FindSome(const ZvMessage& message)
	{
		const void* data;
		int32 size;
		message.FindData("a", ZV_ANY_TYPE, &data, &size);
	}

	std::vector<std::string> Queries()
	{
		std::vector<std::string> queries = {"a",     "",      "@@@Unnamed", kName62,
		                                    kName63, kName64, kName70,      "field",
		                                    "A",     "b",     "field0\x01"};
		for (int i = 0; i < fDistinct + 2; i++)
			queries.push_back("field" + std::to_string(i));
		return queries;
	}

	void CheckName(const ZvMessage& message, const Model& model, const char* name)
	{
		static const type_code kTypes[] = {ZV_ANY_TYPE,   ZV_INT32_TYPE, ZV_STRING_TYPE,
		                                   ZV_INT16_TYPE, kRawType,      ZV_DOUBLE_TYPE};
		for (type_code type : kTypes) {
			int32 index = -1;
			for (;; index++) {
				const ModelItem* expected = model.Find(name, type, index);
				ZvMessageItem* found = nullptr;
				const bool ok = message._FindData(name, type, index, &found);
				ASSERT_EQ(expected != nullptr, ok)
				    << "name '" << (name ? name : "(null)") << "' type " << type << " index "
				    << index << " of " << model.items.size();
				EXPECT_EQ(ok, message.HasData(name, type, index));
				if (expected == nullptr) {
					if (index >= 0)
						break;
					continue;
				}
				EXPECT_EQ(expected->name, found->name);
				EXPECT_EQ(expected->type, found->type);
				ASSERT_EQ(expected->bytes.size(), static_cast<size_t>(found->size));
				if (!expected->bytes.empty()) {
					EXPECT_EQ(0, memcmp(expected->bytes.data(), found->data, found->size));
				}
			}
		}
		type_code type = 0;
		int32 count = -1;
		const bool known = message.GetInfo(name, &type, &count);
		const ModelItem* first = model.Find(name, ZV_ANY_TYPE, 0);
		EXPECT_EQ(first != nullptr, known);
		if (first != nullptr) {
			EXPECT_EQ(first->type, type);
		}
		int32 expectedCount = 0;
		while (model.Find(name, ZV_ANY_TYPE, expectedCount) != nullptr)
			expectedCount++;
		EXPECT_EQ(expectedCount, count);
	}

	void Check(const ZvMessage& message, const Model& model)
	{
		for (const std::string& query : Queries())
			CheckName(message, model, query.c_str());
		CheckName(message, model, nullptr);
		for (type_code type : {ZV_ANY_TYPE, ZV_INT32_TYPE, ZV_STRING_TYPE, kRawType, 0u})
			EXPECT_EQ(model.CountNames(type), message.CountNames(type)) << type;
		// Item order.
		type_code unusedType;
		int32 total = -1;
		ASSERT_EQ(!model.items.empty(),
		          message.GetInfo(ZV_ANY_TYPE, 0, nullptr, &unusedType, &total));
		for (size_t i = 0; i < model.items.size(); i++) {
			char* name = nullptr;
			type_code type = 0;
			ASSERT_TRUE(message.GetInfo(ZV_ANY_TYPE, static_cast<int32>(i), &name, &type, &total));
			EXPECT_EQ(model.items[i].name, name);
			EXPECT_EQ(model.items[i].type, type);
		}
	}

	void CheckSome()
	{
		// The names the last steps most likely touched, each time; every
		// name now and then.
		for (const char* name : {"a", "", "@@@Unnamed", kName63.c_str(), kName64.c_str()})
			CheckName(fMessage, fModel, name);
		const std::string field = "field" + std::to_string(Below(fDistinct));
		CheckName(fMessage, fModel, field.c_str());
	}

	void CheckAll() { Check(fMessage, fModel); }

	std::mt19937 fRandom;
	int fDistinct;
	ZvMessage fMessage;
	Model fModel;
};

TEST(ZvMessageLookupTest, RandomOperationsOnFewNamesAnswerAsAPlainWalk)
{
	// Few names: long runs of values under one name, mixed types.
	for (uint32 seed = 1; seed <= 6; seed++) {
		LookupFuzzer fuzzer(seed, 3);
		fuzzer.Run(600);
	}
}

TEST(ZvMessageLookupTest, RandomOperationsOnManyNamesAnswerAsAPlainWalk)
{
	for (uint32 seed = 11; seed <= 14; seed++) {
		LookupFuzzer fuzzer(seed, 150);
		fuzzer.Run(900);
	}
}

// Adds count int32 fields named "f<i>" (value i) to message.
void AddFields(ZvMessage* message, int count)
{
	for (int i = 0; i < count; i++)
		message->AddInt32(("f" + std::to_string(i)).c_str(), i);
}

TEST(ZvMessageLookupTest, EveryValueOfALongListIsFoundByItsIndex)
{
	ZvMessage message(0);
	for (int32 i = 0; i < 20000; i++)
		message.AddInt32("list", i);
	for (int32 i = 0; i < 20000; i++) {
		int32 value = -1;
		ASSERT_TRUE(message.FindInt32("list", i, &value));
		ASSERT_EQ(i, value);
	}
	EXPECT_FALSE(message.HasInt32("list", 20000));
	EXPECT_FALSE(message.HasInt16("list", 0));
}

TEST(ZvMessageLookupTest, ManyDistinctNamesAreEachFoundAfterRemovalsAndAdds)
{
	ZvMessage message(0);
	AddFields(&message, 5000);
	// Remove every third field, then add some back under new values.
	for (int i = 0; i < 5000; i += 3)
		ASSERT_TRUE(message.RemoveName(("f" + std::to_string(i)).c_str()));
	for (int i = 0; i < 5000; i += 6)
		message.AddInt32(("f" + std::to_string(i)).c_str(), -i);
	for (int i = 0; i < 5000; i++) {
		int32 value = 0;
		const bool found = message.FindInt32(("f" + std::to_string(i)).c_str(), &value);
		if (i % 6 == 0) {
			ASSERT_TRUE(found) << i;
			EXPECT_EQ(-i, value);
		} else if (i % 3 == 0) {
			EXPECT_FALSE(found) << i;
		} else {
			ASSERT_TRUE(found) << i;
			EXPECT_EQ(i, value);
		}
	}
	// Re-added fields come after the others.
	char* name = nullptr;
	type_code type;
	int32 count;
	ASSERT_TRUE(
	    message.GetInfo(ZV_ANY_TYPE, message.CountNames(ZV_ANY_TYPE) - 1, &name, &type, &count));
	EXPECT_STREQ("f4998", name);
}

TEST(ZvMessageLookupTest, ALargeMessageFlattensAndDumpsAsTheSameItemsAddedToASmallOne)
{
	// The same 40 items, looked up (so indexed) in one message and not in
	// the other: the blocks are byte for byte the same.
	ZvMessage indexed(7);
	ZvMessage plain(7);
	AddFields(&indexed, 40);
	AddFields(&plain, 40);
	int32 value;
	ASSERT_TRUE(indexed.FindInt32("f39", &value));
	indexed.AddInt32("f0", 99);
	plain.AddInt32("f0", 99);
	ASSERT_TRUE(indexed.RemoveData("f3", 0));
	ASSERT_TRUE(plain.RemoveData("f3", 0));
	EXPECT_EQ(FlatBytes(plain), FlatBytes(indexed));

	testing::internal::CaptureStdout();
	plain.PrintToStream();
	const std::string plainDump = testing::internal::GetCapturedStdout();
	testing::internal::CaptureStdout();
	indexed.PrintToStream();
	EXPECT_EQ(plainDump, testing::internal::GetCapturedStdout());
}

TEST(ZvMessageLookupTest, NamesCutAt63CharactersMatchOnlyTheCutForm)
{
	ZvMessage message(0);
	AddFields(&message, 30);
	message.AddInt32(kName70.c_str(), 70);
	message.AddInt32(kName62.c_str(), 62);
	int32 value = 0;
	// The stored name is the 63-character cut; only that form matches.
	EXPECT_FALSE(message.FindInt32(kName70.c_str(), &value));
	EXPECT_FALSE(message.FindInt32(kName64.c_str(), &value));
	ASSERT_TRUE(message.FindInt32(kName63.c_str(), &value));
	EXPECT_EQ(70, value);
	ASSERT_TRUE(message.FindInt32(kName62.c_str(), &value));
	EXPECT_EQ(62, value);
	EXPECT_FALSE(message.RemoveName(kName64.c_str()));
	EXPECT_TRUE(message.RemoveName(kName63.c_str()));
	EXPECT_FALSE(message.HasInt32(kName63.c_str(), 0));
	EXPECT_TRUE(message.HasInt32(kName62.c_str(), 0));
}

TEST(ZvMessageLookupTest, TypedLookupsCountOnlyItemsOfTheirTypeUnderAMixedName)
{
	ZvMessage message(0);
	AddFields(&message, 30);
	for (int32 i = 0; i < 10; i++) {
		message.AddInt32("mixed", i);
		message.AddString("mixed", std::to_string(i).c_str());
	}
	int32 value = -1;
	const char* text = nullptr;
	ASSERT_TRUE(message.FindInt32("mixed", 7, &value));
	EXPECT_EQ(7, value);
	ASSERT_TRUE(message.FindString("mixed", 7, &text));
	EXPECT_STREQ("7", text);
	const void* data = nullptr;
	int32 size = 0;
	ASSERT_TRUE(message.FindData("mixed", ZV_ANY_TYPE, 15, &data, &size));
	EXPECT_STREQ("7", static_cast<const char*>(data));
	EXPECT_FALSE(message.HasInt32("mixed", 10));
	EXPECT_EQ(1, message.CountNames(ZV_STRING_TYPE));
	EXPECT_EQ(31, message.CountNames(ZV_INT32_TYPE));
}

// A name of one value and a name of several are held differently by the
// index; a name that grows from one value to several and back, and one that
// shares its hash slot run with others, answers as the walk does.
TEST(ZvMessageLookupTest, ANameGoingFromOneValueToSeveralAndBackIsFoundEachStep)
{
	ZvMessage message(0);
	AddFields(&message, 40);
	message.AddInt32("grow", 0);
	int32 value = -1;
	type_code type = 0;
	int32 count = 0;
	ASSERT_TRUE(message.FindInt32("grow", &value));
	EXPECT_EQ(0, value);
	EXPECT_FALSE(message.HasInt32("grow", 1));
	EXPECT_FALSE(message.HasString("grow", 0));

	message.AddString("grow", "one");
	message.AddInt32("grow", 2);
	ASSERT_TRUE(message.GetInfo("grow", &type, &count));
	EXPECT_EQ(ZV_INT32_TYPE, type);
	EXPECT_EQ(3, count);
	ASSERT_TRUE(message.FindInt32("grow", 1, &value));
	EXPECT_EQ(2, value);
	const char* text = nullptr;
	ASSERT_TRUE(message.FindString("grow", &text));
	EXPECT_STREQ("one", text);

	// Down to the string alone: typed lookups still see only its type.
	ASSERT_TRUE(message.RemoveData("grow", 0));
	ASSERT_TRUE(message.RemoveData("grow", 1));
	ASSERT_TRUE(message.GetInfo("grow", &type, &count));
	EXPECT_EQ(ZV_STRING_TYPE, type);
	EXPECT_EQ(1, count);
	EXPECT_FALSE(message.HasInt32("grow", 0));
	ASSERT_TRUE(message.FindString("grow", &text));
	EXPECT_STREQ("one", text);

	ASSERT_TRUE(message.RemoveData("grow", 0));
	EXPECT_FALSE(message.GetInfo("grow", &type, &count));
	EXPECT_FALSE(message.RemoveName("grow"));

	// Back to one value, then a single-valued name removed by RemoveName.
	message.AddInt32("grow", 9);
	ASSERT_TRUE(message.FindInt32("grow", &value));
	EXPECT_EQ(9, value);
	EXPECT_TRUE(message.RemoveName("grow"));
	EXPECT_FALSE(message.HasInt32("grow", 0));

	// Every other name is untouched, and the count of names is right.
	for (int32 i = 0; i < 40; i++) {
		const std::string name = "f" + std::to_string(i);
		ASSERT_TRUE(message.FindInt32(name.c_str(), &value)) << name;
		EXPECT_EQ(i, value);
	}
	EXPECT_EQ(40, message.CountNames(ZV_ANY_TYPE));
	EXPECT_EQ(0, message.CountNames(ZV_STRING_TYPE));
}

// A derived class that appends to and removes from the list itself.
class ListChangingMessage : public ZvMessage
{
public:
	ListChangingMessage() : ZvMessage(0) {}
	void AppendDirectly(const char* name, int32 value)
	{
		items.AddItem(new ZvMessageItem(name, ZV_INT32_TYPE, 4, &value));
	}
	void DeleteLastDirectly() { delete items.RemoveItem(items.CountItems() - 1); }
};

TEST(ZvMessageLookupTest, ItemsAddedToTheListByADerivedClassAreFound)
{
	ListChangingMessage message;
	AddFields(&message, 40);
	int32 value = 0;
	ASSERT_TRUE(message.FindInt32("f20", &value));
	message.AppendDirectly("direct", 5);
	ASSERT_TRUE(message.FindInt32("direct", &value));
	EXPECT_EQ(5, value);
	// A change made through the message after one made directly.
	message.AddInt32("later", 6);
	ASSERT_TRUE(message.FindInt32("later", &value));
	EXPECT_EQ(6, value);
	ASSERT_TRUE(message.FindInt32("direct", &value));
	message.DeleteLastDirectly();
	EXPECT_FALSE(message.HasInt32("later", 0));
	EXPECT_TRUE(message.RemoveData("direct", 0));
	EXPECT_FALSE(message.HasInt32("direct", 0));
	EXPECT_TRUE(message.HasInt32("f39", 0));
}

TEST(ZvMessageLookupTest, ReadersOfOneLargeMessageMayMakeItsIndexTogether)
{
	Watchdog watchdog(std::chrono::seconds(60), "parallel lookups");
	const int kThreads = 4;
	for (int round = 0; round < 20; round++) {
		ZvMessage message(0);
		AddFields(&message, 200);
		const ZvMessage& shared = message;
		Latch ready(kThreads);
		std::atomic<int> failures{0};
		std::vector<std::thread> threads;
		for (int t = 0; t < kThreads; t++) {
			threads.emplace_back([t, &ready, &shared, &failures] {
				ready.CountDown();
				if (!ready.WaitFor(std::chrono::seconds(30)))
					failures++;
				for (int i = t; i < 200; i += 7) {
					int32 value = -1;
					if (!shared.FindInt32(("f" + std::to_string(i)).c_str(), &value) || value != i)
						failures++;
				}
			});
		}
		for (std::thread& thread : threads)
			thread.join();
		ASSERT_EQ(0, failures.load());
	}
}

// The index on its own, over items made here: every name is found after
// every growth of its table, from the first size to many thousands.
TEST(ZvMessageLookupTest, TheIndexFindsEveryNameAcrossEachGrowthOfItsTable)
{
	using zvkit::internal::NameIndex;
	ZvList<ZvMessageItem*> list(16);
	std::vector<std::unique_ptr<ZvMessageItem>> made;
	NameIndex index(list);
	size_t slots = index.CountSlots();
	int growths = 0;
	const int32 value = 0;
	for (int i = 0; i < 20000; i++) {
		const std::string name = "n" + std::to_string(i * 7919);
		made.push_back(std::make_unique<ZvMessageItem>(name.c_str(), ZV_INT32_TYPE,
		                                               static_cast<int32>(sizeof(value)), &value));
		list.AddItem(made.back().get());
		index.Added(made.back().get());
		ASSERT_EQ(i + 1, index.CountNames());
		// At most half the slots are used.
		ASSERT_LE(2 * static_cast<size_t>(index.CountNames()), index.CountSlots());
		if (index.CountSlots() == slots && i != 19999)
			continue;
		growths += index.CountSlots() != slots ? 1 : 0;
		slots = index.CountSlots();
		for (int j = 0; j <= i; j++) {
			const std::string known = "n" + std::to_string(j * 7919);
			ASSERT_EQ(made[static_cast<size_t>(j)].get(), index.Find(known.c_str(), ZV_ANY_TYPE, 0))
			    << known << " among " << i + 1;
		}
		EXPECT_EQ(nullptr, index.Find("n1", ZV_ANY_TYPE, 0));
		EXPECT_EQ(nullptr, index.Find("n", ZV_ANY_TYPE, 0));
	}
	// 64 slots at first, 65,536 or more for 20,000 names.
	EXPECT_GE(growths, 5);
	EXPECT_GE(index.CountSlots(), 65536u);
}

// Two names of equal hashes, found by searching many names: each still
// finds its own values, in a message large enough to use the index, through
// removal and re-adding of either.
TEST(ZvMessageLookupTest, NamesOfEqualHashesAreToldApart)
{
	using zvkit::internal::KeyOfName;
	std::map<uint32, std::string> seen;
	std::string first;
	std::string second;
	for (uint32 i = 0; i < 2000000 && first.empty(); i++) {
		const std::string name = "h" + std::to_string(i);
		const auto [at, added] = seen.emplace(KeyOfName(name.c_str()).hash, name);
		if (!added) {
			first = at->second;
			second = name;
		}
	}
	ASSERT_FALSE(first.empty()) << "no two names of equal hashes found";
	ASSERT_EQ(KeyOfName(first.c_str()).hash, KeyOfName(second.c_str()).hash);

	ZvMessage message(0);
	AddFields(&message, 40);
	message.AddInt32(first.c_str(), 1);
	message.AddInt32(second.c_str(), 2);
	message.AddInt32(first.c_str(), 11);
	int32 value = 0;
	ASSERT_TRUE(message.FindInt32(first.c_str(), 1, &value));
	EXPECT_EQ(11, value);
	ASSERT_TRUE(message.FindInt32(second.c_str(), &value));
	EXPECT_EQ(2, value);
	EXPECT_FALSE(message.HasInt32(second.c_str(), 1));

	ASSERT_TRUE(message.RemoveName(first.c_str()));
	EXPECT_FALSE(message.HasInt32(first.c_str(), 0));
	ASSERT_TRUE(message.FindInt32(second.c_str(), &value));
	EXPECT_EQ(2, value);
	message.AddInt32(first.c_str(), 3);
	ASSERT_TRUE(message.RemoveData(second.c_str(), 0));
	EXPECT_FALSE(message.HasInt32(second.c_str(), 0));
	ASSERT_TRUE(message.FindInt32(first.c_str(), &value));
	EXPECT_EQ(3, value);
	for (int i = 0; i < 40; i++) {
		ASSERT_TRUE(message.FindInt32(("f" + std::to_string(i)).c_str(), &value));
		EXPECT_EQ(i, value);
	}
}

// Names that share long beginnings, that are beginnings of each other, and
// that differ only in their last character, at every length up to 63 (a
// lookup reads names eight characters at a time); and names differing only
// after their 63rd character, which items hold as one name.
TEST(ZvMessageLookupTest, NamesDifferingOnlyInOneCharacterOrAfterTheCutAreFoundRightly)
{
	ZvMessage message(0);
	AddFields(&message, 30);
	const std::string stem = Repeat('s', 63);
	for (size_t length = 1; length <= 63; length++) {
		std::string name = stem.substr(0, length);
		message.AddInt32(name.c_str(), static_cast<int32>(length));
		name.back() = 't';
		message.AddInt32(name.c_str(), -static_cast<int32>(length));
	}
	for (size_t length = 1; length <= 63; length++) {
		std::string name = stem.substr(0, length);
		int32 value = 0;
		ASSERT_TRUE(message.FindInt32(name.c_str(), &value)) << length;
		EXPECT_EQ(static_cast<int32>(length), value);
		EXPECT_FALSE(message.HasInt32(name.c_str(), 1)) << length;
		name.back() = 't';
		ASSERT_TRUE(message.FindInt32(name.c_str(), &value)) << length;
		EXPECT_EQ(-static_cast<int32>(length), value);
	}

	// Cut to the same 63 characters: one name of two values.
	const std::string longA = stem + "a-tail";
	const std::string longB = stem + "b-tail";
	message.AddInt32(longA.c_str(), 100);
	message.AddInt32(longB.c_str(), 200);
	int32 value = 0;
	EXPECT_FALSE(message.FindInt32(longA.c_str(), &value));
	EXPECT_FALSE(message.FindInt32(longB.c_str(), &value));
	ASSERT_TRUE(message.FindInt32(stem.c_str(), 1, &value));
	EXPECT_EQ(100, value);
	ASSERT_TRUE(message.FindInt32(stem.c_str(), 2, &value));
	EXPECT_EQ(200, value);
	type_code type = 0;
	int32 count = 0;
	ASSERT_TRUE(message.GetInfo(stem.c_str(), &type, &count));
	EXPECT_EQ(3, count);
}

// Many names removed in random order and added back, some several times:
// after each round every name answers as a model of the message says (a
// removal closes the gap it leaves in the index's table and moves another
// entry into its place).
TEST(ZvMessageLookupTest, ManyNamesRemovedAndAddedBackInRandomOrderAreAllFound)
{
	std::mt19937 random(77);
	constexpr int kNames = 3000;
	ZvMessage message(0);
	std::map<std::string, std::vector<int32>> model;
	for (int i = 0; i < kNames; i++) {
		const std::string name = "r" + std::to_string(i);
		message.AddInt32(name.c_str(), i);
		model[name].push_back(i);
	}
	for (int round = 0; round < 6; round++) {
		for (int k = 0; k < kNames / 2; k++) {
			const std::string name = "r" + std::to_string(random() % kNames);
			const bool removed = message.RemoveName(name.c_str());
			ASSERT_EQ(!model[name].empty(), removed) << name;
			model[name].clear();
			if (random() % 3 == 0) {
				const int32 value = static_cast<int32>(random() % 1000);
				message.AddInt32(name.c_str(), value);
				model[name].push_back(value);
			}
		}
		for (const auto& [name, values] : model) {
			type_code type = 0;
			int32 count = 0;
			const bool found = message.GetInfo(name.c_str(), &type, &count);
			ASSERT_EQ(!values.empty(), found) << name << " in round " << round;
			if (!found)
				continue;
			ASSERT_EQ(static_cast<int32>(values.size()), count) << name;
			for (size_t i = 0; i < values.size(); i++) {
				int32 value = -1;
				ASSERT_TRUE(message.FindInt32(name.c_str(), static_cast<int32>(i), &value));
				ASSERT_EQ(values[i], value) << name;
			}
		}
	}
}

// The key of a name is the same wherever the name lies, and reading it never
// goes past the name: here each name ends at the last byte of a page
// followed by one that may not be read (the sanitizers check the rest).
TEST(ZvMessageLookupTest, NameKeysDoNotDependOnWhereTheNameLiesNorReadIntoTheNextPage)
{
	using zvkit::internal::KeyOfName;
	using zvkit::internal::NameKey;
	const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
	void* map = mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
	ASSERT_NE(MAP_FAILED, map);
	char* pages = static_cast<char*>(map);
	ASSERT_EQ(0, mprotect(pages + page, page, PROT_NONE));
	const std::string text = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_-.+";
	for (size_t length = 0; length <= 66; length++) {
		const std::string name = text.substr(0, length);
		ASSERT_EQ(length, name.size());
		const NameKey expected = KeyOfName(name.c_str());
		EXPECT_EQ(length > 63, expected.TooLong()) << length;
		if (!expected.TooLong()) {
			EXPECT_EQ(length, expected.length);
		}
		// At the page's end, and at every shift within two words of it.
		for (size_t shift = 0; shift < 16; shift++) {
			char* at = pages + page - (length + 1) - shift;
			memcpy(at, name.c_str(), length + 1);
			memset(at + length + 1, 'x', shift);
			const NameKey key = KeyOfName(at);
			ASSERT_EQ(expected.hash, key.hash) << length << " shifted " << shift;
			ASSERT_EQ(expected.length, key.length) << length << " shifted " << shift;
		}
	}
	munmap(map, 2 * page);
}

} // namespace

// A message of 100,000 fields gives back its items and its large arrays when
// it goes, and the next message as large is built from them: what the C
// library counts as in use hardly grows while it is built. (Were the items
// kept only up to the usual 2 MiB, some 75,000 of them, 7 MB, would be asked
// of the allocator again.)
TEST(ZvMessageLookupTest, ALargeMessageIsBuiltAgainFromTheBlocksTheLastOneFreed)
{
	if (zvtest::kSanitized || getenv("ZVKIT_FORCE_NEW") != nullptr)
		GTEST_SKIP() << "blocks are not kept for reuse in this process";
	constexpr int32 kFields = 100000;
	std::vector<std::string> names;
	names.reserve(kFields);
	for (int32 i = 0; i < kFields; i++)
		names.push_back("field" + std::to_string(i));
	const auto inUse = [] {
		const struct mallinfo2 info = mallinfo2();
		return info.uordblks + info.hblkhd;
	};
	const auto fill = [&](ZvMessage* message) {
		for (int32 i = 0; i < kFields; i++)
			ASSERT_TRUE(message->AddInt32(names[i].c_str(), i));
	};
	{
		ZvMessage first(1);
		fill(&first);
	}
	const size_t before = inUse();
	ZvMessage second(2);
	fill(&second);
	const size_t after = inUse();
	EXPECT_LT(after - std::min(after, before), size_t(1) << 20)
	    << "bytes newly asked of the allocator while the second message was built";
	int32 value = -1;
	for (int32 i = 0; i < kFields; i += 997) {
		ASSERT_TRUE(second.FindInt32(names[i].c_str(), &value)) << names[i];
		EXPECT_EQ(value, i);
	}
}
