// Tests of the block tests behind character counting: each kind the
// processor has, on random well-formed and malformed text, gives the count of
// a plain walk by lead bytes and the same "well-formed" answer.
#include "text/Utf8Scan.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace {

using zvkit::internal::AvailableBlockScans;
using zvkit::internal::BlockScanKind;
using zvkit::internal::CountCharsUsing;

// The walk by lead bytes (0x0-0xB one byte, 0xC-0xD two, 0xE three, 0xF
// four), and whether every lead has its continuation bytes and no
// continuation byte stands alone.
size_t PlainCount(const std::string& text, bool* wellFormed)
{
	size_t count = 0;
	bool ok = true;
	for (size_t i = 0; i < text.size(); count++) {
		const unsigned char lead = static_cast<unsigned char>(text[i]);
		const size_t size = lead < 0xC0 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
		if ((lead & 0xC0) == 0x80 || i + size > text.size())
			ok = false;
		for (size_t k = 1; k < size && i + k < text.size(); k++) {
			if ((static_cast<unsigned char>(text[i + k]) & 0xC0) != 0x80)
				ok = false;
		}
		i += size;
	}
	*wellFormed = ok;
	return count;
}

const char* NameOf(BlockScanKind kind)
{
	return kind == BlockScanKind::kWords  ? "words"
	       : kind == BlockScanKind::kAvx2 ? "avx2"
	                                      : "avx512";
}

// Text of pieces: mostly well-formed characters of every size in long runs,
// with malformed bytes at a rate of one piece in rareness (0: none).
std::string RandomText(std::mt19937& random, size_t size, unsigned rareness)
{
	static const std::vector<std::string> good = {
	    "a", "0123456789abcdef", "\xC3\xA9", "\xE6\x97\xA5", "\xE3\x81\xAE", "\xF0\x9F\x98\x80"};
	static const std::vector<std::string> bad = {"\x80",     "\xBF", "\xC3", "\xE3",    "\xE3\x81",
	                                             "\xF0\x9F", "\xF8", "\xFF", "\xC0\x41"};
	std::string text;
	while (text.size() < size) {
		if (rareness != 0 && random() % rareness == 0)
			text += bad[random() % bad.size()];
		else
			text += good[random() % good.size()];
	}
	return text;
}

void ExpectEveryKindCountsAsThePlainWalk(const std::string& text, const char* what)
{
	bool plainWellFormed;
	const size_t plain = PlainCount(text, &plainWellFormed);
	// The block tests look at the three bytes before a block: the text
	// starts 3 bytes into a buffer, as it does after any prefix.
	const std::string padded = "xyz" + text;
	for (const BlockScanKind kind : AvailableBlockScans()) {
		bool wellFormed = !plainWellFormed;
		EXPECT_EQ(CountCharsUsing(kind, padded.c_str() + 3, text.size(), &wellFormed), plain)
		    << NameOf(kind) << " on " << what << " of " << text.size() << " bytes";
		EXPECT_EQ(wellFormed, plainWellFormed) << NameOf(kind) << " on " << what;
	}
}

TEST(Utf8Scan, EveryBlockTestCountsWellFormedTextAsThePlainWalk)
{
	std::mt19937 random(20261125);
	for (int round = 0; round < 300; round++) {
		const std::string text = RandomText(random, random() % 2000, 0);
		ExpectEveryKindCountsAsThePlainWalk(text, "well-formed text");
	}
}

TEST(Utf8Scan, EveryBlockTestCountsMalformedTextAsThePlainWalk)
{
	std::mt19937 random(11);
	for (int round = 0; round < 600; round++) {
		const unsigned rareness = 2 + static_cast<unsigned>(random() % 300);
		const std::string text = RandomText(random, random() % 2000, rareness);
		ExpectEveryKindCountsAsThePlainWalk(text, "malformed text");
	}
}

TEST(Utf8Scan, EveryBlockTestCountsRandomBytesAsThePlainWalk)
{
	std::mt19937 random(5);
	for (int round = 0; round < 300; round++) {
		std::string text(random() % 700, '\0');
		for (char& c : text)
			c = static_cast<char>(1 + random() % 255);
		ExpectEveryKindCountsAsThePlainWalk(text, "random bytes");
	}
}

TEST(Utf8Scan, OneBadByteAtEveryOffsetOfLongTextIsCountedAsThePlainWalk)
{
	// Long runs of three-byte characters and of ASCII with one byte
	// replaced, at every offset across several blocks, by each kind of bad
	// byte: a lead just before an ASCII block reaches into it.
	std::string cjk;
	while (cjk.size() < 300)
		cjk += "\xE6\x97\xA5";
	const std::string ascii(300, 'a');
	for (const std::string& base : {cjk, ascii}) {
		for (const char bad : {'\x80', '\xC3', '\xE3', '\xF0', 'a'}) {
			for (size_t at = 0; at < base.size(); at++) {
				std::string text = base;
				text[at] = bad;
				ExpectEveryKindCountsAsThePlainWalk(text, "one bad byte");
			}
		}
	}
}

} // namespace
