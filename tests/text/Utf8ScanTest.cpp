// Tests of the block tests behind character counting: each kind the
// processor has, on random well-formed and malformed text, gives the count of
// a plain walk by lead bytes and the same "well-formed" answer; the copying
// count also leaves an exact copy and touches no byte outside the ranges it
// is given.
#include "text/Utf8Scan.h"

#include <gtest/gtest.h>

#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <random>
#include <string>
#include <vector>

namespace {

using zvkit::internal::AvailableBlockScans;
using zvkit::internal::BlockScanKind;
using zvkit::internal::CopyCountChars;
using zvkit::internal::CopyCountCharsUsing;
using zvkit::internal::CountChars;
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

// Copies text with each kind of copying count, from a source that starts
// `sourceShift` bytes after a 3-byte prefix and to a destination at
// `destinationShift`, with guard bytes around the destination: the count is
// the plain walk's, the copy exact, the guards untouched.
void ExpectEveryKindCopiesAsThePlainWalk(const std::string& text, const char* what,
                                         size_t sourceShift = 0, size_t destinationShift = 0)
{
	bool plainWellFormed;
	const size_t plain = PlainCount(text, &plainWellFormed);
	const std::string source = std::string(3 + sourceShift, 'x') + text;
	const char* from = source.c_str() + 3 + sourceShift;
	const size_t guard = 80;
	for (const BlockScanKind kind : AvailableBlockScans()) {
		std::vector<char> destination(guard + destinationShift + text.size() + guard, '\x5A');
		char* to = destination.data() + guard + destinationShift;
		EXPECT_EQ(CopyCountCharsUsing(kind, to, from, text.size()), plain)
		    << NameOf(kind) << " on " << what << " of " << text.size() << " bytes";
		EXPECT_EQ(memcmp(to, from, text.size()), 0) << NameOf(kind) << " on " << what;
		for (size_t k = 0; k < guard + destinationShift; k++)
			ASSERT_EQ(destination[k], '\x5A') << NameOf(kind) << ": wrote before the copy";
		for (size_t k = guard + destinationShift + text.size(); k < destination.size(); k++)
			ASSERT_EQ(destination[k], '\x5A') << NameOf(kind) << ": wrote after the copy";
	}
}

TEST(Utf8Scan, EveryCopyingCountCopiesAndCountsWellFormedTextAsThePlainWalk)
{
	std::mt19937 random(1125);
	for (int round = 0; round < 300; round++) {
		const std::string text = RandomText(random, random() % 2000, 0);
		ExpectEveryKindCopiesAsThePlainWalk(text, "well-formed text", random() % 64, random() % 64);
	}
}

TEST(Utf8Scan, EveryCopyingCountCopiesAndCountsMalformedTextAsThePlainWalk)
{
	std::mt19937 random(17);
	for (int round = 0; round < 600; round++) {
		const unsigned rareness = 2 + static_cast<unsigned>(random() % 300);
		const std::string text = RandomText(random, random() % 2000, rareness);
		ExpectEveryKindCopiesAsThePlainWalk(text, "malformed text", random() % 64, random() % 64);
	}
}

TEST(Utf8Scan, EveryCopyingCountCopiesAndCountsRandomBytesAndNulsAsThePlainWalk)
{
	// The range is counted by its length: a NUL inside it is a character
	// like any other and is copied.
	std::mt19937 random(23);
	for (int round = 0; round < 300; round++) {
		std::string text(random() % 700, '\0');
		for (char& c : text)
			c = static_cast<char>(random() % 256);
		ExpectEveryKindCopiesAsThePlainWalk(text, "random bytes", random() % 64, random() % 64);
	}
}

TEST(Utf8Scan, EveryCopyingCountHandlesOneBadByteAtEveryOffsetAsThePlainWalk)
{
	std::string cjk;
	while (cjk.size() < 300)
		cjk += "\xE6\x97\xA5";
	const std::string ascii(300, 'a');
	for (const std::string& base : {cjk, ascii}) {
		for (const char bad : {'\x80', '\xC3', '\xE3', '\xF0', 'a', '\0'}) {
			for (size_t at = 0; at < base.size(); at++) {
				std::string text = base;
				text[at] = bad;
				ExpectEveryKindCopiesAsThePlainWalk(text, "one bad byte", at % 7, at % 5);
			}
		}
	}
}

TEST(Utf8Scan, EveryCopyingCountCopiesEveryLengthAtEveryAlignment)
{
	std::mt19937 random(31);
	const std::string long1 = RandomText(random, 400, 20);
	for (size_t length = 0; length <= 200; length++) {
		for (size_t shift = 0; shift < 64; shift += 9)
			ExpectEveryKindCopiesAsThePlainWalk(long1.substr(0, length), "a prefix", shift,
			                                    (shift * 5) % 64);
	}
}

// Two pages, the second without access: a range ending at the end of the
// first one is read or written past its end only by a fault.
class PageEnd
{
public:
	PageEnd() : fPage(static_cast<size_t>(sysconf(_SC_PAGESIZE)))
	{
		void* map =
		    mmap(nullptr, 2 * fPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
		fMap = map != MAP_FAILED ? static_cast<char*>(map) : nullptr;
		if (fMap != nullptr && mprotect(fMap + fPage, fPage, PROT_NONE) != 0) {
			munmap(fMap, 2 * fPage);
			fMap = nullptr;
		}
	}
	~PageEnd()
	{
		if (fMap != nullptr)
			munmap(fMap, 2 * fPage);
	}
	bool Ok() const { return fMap != nullptr; }
	size_t Size() const { return fPage; }
	// The last n bytes of the accessible page.
	char* Last(size_t n) const { return fMap + fPage - n; }

private:
	size_t fPage;
	char* fMap;
};

TEST(Utf8Scan, CopyingCountNeverReadsOrWritesPastTheEndOfItsRanges)
{
	PageEnd source;
	PageEnd destination;
	ASSERT_TRUE(source.Ok() && destination.Ok());
	std::mt19937 random(41);
	// Lead bytes near the end ask for bytes the range does not have.
	std::string text = RandomText(random, 3 * 64 + 5, 6);
	text.back() = '\xF0';
	for (const BlockScanKind kind : AvailableBlockScans()) {
		for (size_t length = 0; length <= text.size(); length++) {
			const std::string piece = text.substr(text.size() - length);
			bool wellFormed;
			const size_t plain = PlainCount(piece, &wellFormed);
			char* from = source.Last(length);
			memcpy(from, piece.data(), length);
			char* to = destination.Last(length);
			ASSERT_EQ(CopyCountCharsUsing(kind, to, from, length), plain)
			    << NameOf(kind) << " on " << length << " bytes";
			ASSERT_EQ(memcmp(to, piece.data(), length), 0) << NameOf(kind);
		}
	}
}

TEST(Utf8Scan, CopyingCountGivesTheCountOfCountChars)
{
	std::mt19937 random(53);
	for (int round = 0; round < 100; round++) {
		const std::string text = RandomText(random, random() % 5000, random() % 2 ? 0 : 50);
		std::vector<char> copy(text.size() + 1);
		EXPECT_EQ(CopyCountChars(copy.data(), text.data(), text.size()),
		          CountChars(text.data(), text.size()));
		EXPECT_EQ(memcmp(copy.data(), text.data(), text.size()), 0);
	}
}

} // namespace
