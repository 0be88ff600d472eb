// The internal walk over flattened blocks: it accepts exactly what the
// bounded reader accepts, names the offset and reason of the first problem,
// and swaps blocks in place.
#include <ZvMessage.h>

#include "HexBlock.h"
#include "MessageTestSupport.h"
#include "messaging/FlatWalk.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

using zvkit::internal::CheckFlatBlock;
using zvkit::internal::FlatProblem;
using zvkit::internal::FlatWalk;
using zvkit::internal::WalkFlatBlock;
using zvtest::FlatBytes;
using zvtest::RandomMessageBuilder;
using zvtest::ReadHexBlock;

FlatProblem ProblemOf(const std::vector<uint8>& block, const FlatWalk& how = FlatWalk())
{
	FlatProblem problem;
	EXPECT_FALSE(CheckFlatBlock(block.data(), block.size(), how, nullptr, &problem));
	return problem;
}

TEST(FlatWalkTest, AcceptsExactlyWhatTheBoundedReaderAccepts)
{
	RandomMessageBuilder builder(99);
	int refused = 0;
	for (int round = 0; round < 2000; round++) {
		ZvMessage message(0);
		builder.Fill(&message, 2);
		std::vector<uint8> block = FlatBytes(message);
		switch (round % 3) {
		case 0:
			block.resize(builder.Below(static_cast<int>(block.size()) + 1));
			break;
		default:
			for (int i = 0; i <= round % 3; i++)
				block[builder.Below(static_cast<int>(block.size()))] ^= 1 << builder.Below(8);
			break;
		}
		ZvMessage read(0);
		const bool accepted = read.Unflatten(block.data(), block.size());
		size_t length = 0;
		const bool walked =
		    CheckFlatBlock(block.data(), block.size(), FlatWalk(), &length, nullptr);
		ASSERT_EQ(accepted, walked) << "round " << round;
		if (accepted) {
			EXPECT_EQ(static_cast<size_t>(read.FlattenedSize()), length) << "round " << round;
		}
		refused += !accepted;
	}
	EXPECT_GT(refused, 500);
}

TEST(FlatWalkTest, NamesTheOffsetAndReasonOfTheFirstProblem)
{
	const std::vector<uint8> block = ReadHexBlock("little-int32.hex");
	FlatWalk little;
	little.swapped = ZV_HostByteOrder() != ZV_LITTLE_ENDIAN;

	FlatProblem problem = ProblemOf(std::vector<uint8>(block.begin(), block.begin() + 11), little);
	EXPECT_EQ(0u, problem.offset);
	EXPECT_NE(nullptr, strstr(problem.reason, "12-byte header")) << problem.reason;

	std::vector<uint8> count = block;
	count[8] = 3;
	problem = ProblemOf(count, little);
	EXPECT_EQ(8u, problem.offset);
	EXPECT_NE(nullptr, strstr(problem.reason, "item count 3")) << problem.reason;

	std::vector<uint8> size = block;
	size[18] = 5;
	problem = ProblemOf(size, little);
	EXPECT_EQ(18u, problem.offset);
	EXPECT_NE(nullptr, strstr(problem.reason, "data size 5 runs past")) << problem.reason;

	std::vector<uint8> negative = block;
	negative[21] = 0x80;
	problem = ProblemOf(negative, little);
	EXPECT_EQ(18u, problem.offset);
	EXPECT_NE(nullptr, strstr(problem.reason, "negative data size")) << problem.reason;

	// No zero byte anywhere after the name's start.
	std::vector<uint8> name = block;
	for (size_t i = 17; i < name.size(); i++)
		name[i] = 'x';
	problem = ProblemOf(name, little);
	EXPECT_EQ(16u, problem.offset);
	EXPECT_NE(nullptr, strstr(problem.reason, "no terminator")) << problem.reason;

	std::vector<uint8> trailing = block;
	trailing.push_back(0);
	FlatWalk exact = little;
	exact.exact = true;
	problem = ProblemOf(trailing, exact);
	EXPECT_EQ(26u, problem.offset);
	EXPECT_NE(nullptr, strstr(problem.reason, "1 bytes follow")) << problem.reason;
	EXPECT_TRUE(CheckFlatBlock(trailing.data(), trailing.size(), little, nullptr, nullptr));
}

TEST(FlatWalkTest, OffsetsInsideNestedMessagesCountFromTheOutermostBlock)
{
	std::vector<uint8> block = ReadHexBlock("big-families.hex");
	// The nested message's int16 record takes the last 12 bytes; its size
	// word lies 6 bytes before the end. Make it claim 3 bytes.
	block[block.size() - 3] = 3;
	FlatWalk big;
	big.swapped = ZV_HostByteOrder() != ZV_BIG_ENDIAN;
	big.nested = true;
	const FlatProblem problem = ProblemOf(block, big);
	EXPECT_EQ(block.size() - 6, problem.offset) << problem.reason;
	// Without nested checks the outer block is fine.
	big.nested = false;
	EXPECT_TRUE(CheckFlatBlock(block.data(), block.size(), big, nullptr, nullptr));
}

TEST(FlatWalkTest, ConvertingTwiceGivesTheBlockBack)
{
	for (uint32 seed = 1; seed <= 100; seed++) {
		RandomMessageBuilder builder(seed);
		ZvMessage message(0);
		builder.Fill(&message, 5);
		const std::vector<uint8> host = FlatBytes(message);
		std::vector<uint8> block = host;
		FlatWalk there;
		there.convert = true;
		ASSERT_TRUE(WalkFlatBlock(block.data(), block.size(), there, nullptr, nullptr));
		FlatWalk back = there;
		back.swapped = true;
		ASSERT_TRUE(WalkFlatBlock(block.data(), block.size(), back, nullptr, nullptr));
		EXPECT_EQ(host, block) << seed;
	}
}

TEST(FlatWalkTest, AReadOnlyWalkRefusesToConvert)
{
	const std::vector<uint8> block = ReadHexBlock("big-int32.hex");
	FlatWalk convert;
	convert.convert = true;
	FlatProblem problem;
	EXPECT_FALSE(CheckFlatBlock(block.data(), block.size(), convert, nullptr, &problem));
	EXPECT_FALSE(WalkFlatBlock(nullptr, 12, FlatWalk(), nullptr, &problem));
}

} // namespace
