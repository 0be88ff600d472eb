// Real text through UTFString: the UTF-8 decoder capability and stress test
// (correct, malformed, truncated and overlong sequences) from the corpora
// folder (ZVKIT_CORPORA_DIR, next to the checkout; not copied in), and
// the Unicode character database of the unicode-data package turned into
// UTF-8 (every assigned code point followed by its data line). Each is run line by line and whole through construction,
// CalcLength, GetChar, InStr, Replace, case mapping, Split and Mid, checked
// against the plain model of TextModel.h.
#include <UTFString.h>

#include "TextModel.h"

#include <gtest/gtest.h>

#include <stdlib.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

using namespace textmodel;

namespace {

const char* const kStressTestPath = ZVKIT_CORPORA_DIR "/UTF-8-test.txt";
const char* const kUnicodeDataPath = "/usr/share/unicode/UnicodeData.txt";

bool ReadFile(const char* path, std::string* contents)
{
	std::ifstream in(path, std::ios::binary);
	if (!in)
		return false;
	std::ostringstream buffer;
	buffer << in.rdbuf();
	*contents = buffer.str();
	return true;
}

std::vector<std::string> Lines(const std::string& text)
{
	std::vector<std::string> lines;
	size_t from = 0;
	while (from < text.size()) {
		size_t end = text.find('\n', from);
		if (end == std::string::npos)
			end = text.size();
		lines.push_back(text.substr(from, end - from));
		from = end + 1;
	}
	return lines;
}

// The text as the zero-terminated strings a caller can pass: the pieces
// between zero bytes (the stress test holds one, as its U+0000 sample).
std::vector<std::string> ZeroSeparated(const std::string& text)
{
	std::vector<std::string> pieces;
	size_t from = 0;
	for (;;) {
		const size_t end = text.find('\0', from);
		pieces.push_back(
		    text.substr(from, end == std::string::npos ? std::string::npos : end - from));
		if (end == std::string::npos)
			return pieces;
		from = end + 1;
	}
}

// Each data line "XXXX;NAME;..." becomes the character itself, a tab and the
// line.
std::string UnicodeDataAsUtf8(const std::string& data)
{
	std::string out;
	for (const std::string& line : Lines(data)) {
		const uint32 cp = static_cast<uint32>(strtoul(line.c_str(), nullptr, 16));
		if (cp == 0 || cp == '\n')
			continue; // a zero would end the text, a newline split the line
		out += Encode(cp);
		out += '\t';
		out += line;
		out += '\n';
	}
	return out;
}

// Mid exactly as defined, computed on the model.
std::string ModelMid(const std::string& text, const std::vector<size_t>& starts, uint32 start,
                     uint32 count)
{
	const uint32 length = static_cast<uint32>(starts.size());
	const uint32 first = std::min(start, length - 1);
	uint32 end = start + count;
	if (end >= length)
		end = length - 1;
	if (first > end)
		return "";
	const size_t from = OffsetOf(text, starts, std::min(first, length));
	const size_t to = OffsetOf(text, starts, std::min(end, length));
	return text.substr(from, to - from);
}

struct Budget
{
	// Every index is visited for texts up to this many characters; longer
	// ones are sampled so that the whole files stay quick under sanitizers.
	size_t everyIndexUpTo;
	size_t samples;
};

std::vector<uint32> Indexes(size_t length, const Budget& budget)
{
	std::vector<uint32> indexes;
	if (length <= budget.everyIndexUpTo) {
		for (size_t i = 0; i <= length; i++)
			indexes.push_back(static_cast<uint32>(i));
	} else {
		const size_t step = length / budget.samples + 1;
		for (size_t i = 0; i < length; i += step)
			indexes.push_back(static_cast<uint32>(i));
		indexes.push_back(static_cast<uint32>(length - 1));
		indexes.push_back(static_cast<uint32>(length));
	}
	return indexes;
}

// Runs one text through the operations.
void CheckText(const std::string& text, const Budget& budget)
{
	const std::vector<size_t> starts = Starts(text);
	const uint32 length = static_cast<uint32>(starts.size());

	// Construction and counting: the length is the number of steps.
	UTFString s(text.c_str());
	ASSERT_EQ(length, s.Length());
	ASSERT_EQ(text.size(), s.ByteLength());
	s.CalcLength();
	ASSERT_EQ(length, s.Length());

	// Every character, and all of them together give the text back. (Long
	// texts are also run line by line, where every index is visited.)
	if (length <= budget.everyIndexUpTo) {
		std::string joined;
		for (uint32 i = 0; i < length; i++) {
			const UTFChar c = s.GetChar(i);
			ASSERT_EQ(CharAt(text, starts, i), c.Buffer()) << i;
			ASSERT_EQ(text[starts[i]], s.GetChar8(i)) << i;
			joined += c.Buffer();
		}
		ASSERT_EQ(text, joined);
	}
	ASSERT_TRUE(s.GetChar(length).IsNull());

	for (uint32 i :
	     Indexes(length, Budget{std::min<size_t>(budget.everyIndexUpTo, 400), budget.samples})) {
		if (i < length) {
			ASSERT_EQ(CharAt(text, starts, i), s.GetChar(i).Buffer()) << i;
		}
		// Split: the halves give the text back, the left one has i
		// characters.
		UTFString left;
		UTFString right;
		s.Split(i, left, right);
		const size_t at = OffsetOf(text, starts, i);
		ASSERT_EQ(text.substr(0, at), Text(left)) << i;
		ASSERT_EQ(text.substr(at), Text(right)) << i;
		ASSERT_EQ(std::min(i, length), left.Length()) << i;
		ASSERT_EQ(length, left.Length() + right.Length()) << i;
		ASSERT_EQ(text, Text(left + right)) << i;
		ASSERT_EQ(ModelMid(text, starts, i, 3), Text(s.Mid(i, 3))) << i;
		ASSERT_EQ(ModelMid(text, starts, 0, i), Text(s.Mid(0, i))) << i;
	}

	// Search: for each sampled character, its first occurrence.
	for (uint32 i : Indexes(length, Budget{64, std::min<size_t>(budget.samples, 16)})) {
		if (i >= length)
			continue;
		const std::string needle = CharAt(text, starts, i);
		const int32 found = s.InStr(UTFString(needle.c_str()));
		ASSERT_EQ(CharsBefore(starts, text.find(needle)), found) << i;
		const int32 again = s.InStr(static_cast<int32>(i), UTFString(needle.c_str()));
		const size_t from = OffsetOf(text, starts, i);
		// i is a character start, so the walk from it meets the same starts.
		ASSERT_EQ(CharsBefore(starts, text.find(needle, from)), again) << i;
	}

	// Case mapping changes only the ASCII first bytes of characters.
	UTFString upper(s);
	upper.ToUpper();
	ASSERT_EQ(MapCase(text, true), Text(upper));
	ASSERT_EQ(length, upper.Length());
	UTFString lower(s);
	lower.ToLower();
	ASSERT_EQ(MapCase(text, false), Text(lower));

	// Split around a separator gives the text back with the separator.
	UTFString head;
	UTFString tail;
	if (s.Split(UTFString(" "), head, tail)) {
		ASSERT_EQ(text, Text(head) + " " + Text(tail));
	} else {
		ASSERT_EQ(text, Text(head));
	}
}

void CheckReplace(const std::string& text, const char* old, const char* with)
{
	UTFString s(text.c_str());
	bool ended;
	const UTFString expected =
	    ReferenceReplace(s, UTFString(old), UTFString(with), text.size() + 1, &ended);
	s.Replace(UTFString(old), UTFString(with));
	ASSERT_EQ(ended ? Text(expected) : text, Text(s)) << old << " -> " << with;
	ASSERT_EQ(Starts(Text(s)).size(), s.Length());
}

// Replace-all of a pattern by a text of the same character length, on
// well-formed text, is the plain left-to-right replacement.
std::string ReplaceAll(const std::string& text, const std::string& old, const std::string& with)
{
	std::string out;
	size_t from = 0;
	for (size_t at = text.find(old); at != std::string::npos; at = text.find(old, from)) {
		out.append(text, from, at - from);
		out += with;
		from = at + old.size();
	}
	out.append(text, from, std::string::npos);
	return out;
}

} // namespace

TEST(Utf8Corpus, StressTestLineByLine)
{
	std::string corpus;
	if (!ReadFile(kStressTestPath, &corpus))
		GTEST_SKIP() << "corpus not found: " << kStressTestPath
		             << " (configure with -DZVKIT_CORPORA_DIR=<folder holding UTF-8-test.txt>)";
	const std::vector<std::string> lines = Lines(corpus);
	ASSERT_GT(lines.size(), 200u);
	for (size_t n = 0; n < lines.size(); n++) {
		SCOPED_TRACE("line " + std::to_string(n + 1));
		for (const std::string& line : ZeroSeparated(lines[n])) {
			CheckText(line, Budget{200, 50});
			if (HasFatalFailure())
				return;
			CheckReplace(line, "|", "\xE2\x94\x82");
			CheckReplace(line, "\xEF\xBF\xBD", "?");
			CheckReplace(line, "\x80", "#");
			CheckReplace(line, "  ", " ");
			if (HasFatalFailure())
				return;
		}
	}
}

TEST(Utf8Corpus, StressTestWhole)
{
	std::string corpus;
	if (!ReadFile(kStressTestPath, &corpus))
		GTEST_SKIP() << "corpus not found: " << kStressTestPath
		             << " (configure with -DZVKIT_CORPORA_DIR=<folder holding UTF-8-test.txt>)";
	const std::vector<std::string> pieces = ZeroSeparated(corpus);
	ASSERT_EQ(2u, pieces.size());
	for (const std::string& piece : pieces) {
		ASSERT_GT(piece.size(), 4000u);
		CheckText(piece, Budget{0, 1000});
		if (HasFatalFailure())
			return;
		CheckReplace(piece, "\n", "\n\r");
		// Every pass would find the newline again inside "\r\n": that loop
		// never ends, and the text is left as it is.
		UTFString never(piece.c_str());
		never.Replace(UTFString("\n"), UTFString("\r\n"));
		ASSERT_EQ(piece, Text(never));
		CheckReplace(piece, "|", "");
		CheckReplace(piece, "\xCE\xBA", "k");
		// The whole text is split into lines and joined again.
		UTFString rest(piece.c_str());
		std::string joined;
		UTFString line;
		size_t count = 0;
		while (rest.Split(UTFString("\n"), line, rest)) {
			joined += Text(line) + "\n";
			count++;
		}
		joined += Text(line);
		EXPECT_EQ(piece, joined);
		EXPECT_EQ(static_cast<size_t>(std::count(piece.begin(), piece.end(), '\n')), count);
	}
}

TEST(Utf8Corpus, UnicodeDataLineByLine)
{
	std::string data;
	if (!ReadFile(kUnicodeDataPath, &data))
		GTEST_SKIP() << "Unicode data not found: " << kUnicodeDataPath
		             << " (install the unicode-data package)";
	const std::vector<std::string> lines = Lines(UnicodeDataAsUtf8(data));
	ASSERT_GT(lines.size(), 30000u);
	for (size_t n = 0; n < lines.size(); n++) {
		const std::string& line = lines[n];
		SCOPED_TRACE(line);
		// Every 64th line gets the full treatment (the lines differ mostly
		// in their first character), the others the counting, indexing and
		// replacement checks.
		if (n % 64 == 0) {
			CheckText(line, Budget{200, 50});
		} else {
			const std::vector<size_t> starts = Starts(line);
			UTFString s(line.c_str());
			ASSERT_EQ(starts.size(), s.Length());
			ASSERT_EQ(CharAt(line, starts, 0), s.GetChar(0).Buffer());
			ASSERT_EQ(CharAt(line, starts, starts.size() - 1),
			          s.GetChar(static_cast<uint32>(starts.size() - 1)).Buffer());
			ASSERT_EQ(CharsBefore(starts, line.find('\t')), s.InStr(UTFString("\t")));
		}
		UTFString replaced(line.c_str());
		replaced.Replace(UTFString(";"), UTFString("\xE2\x80\xA2"));
		ASSERT_EQ(ReplaceAll(line, ";", "\xE2\x80\xA2"), Text(replaced));
		ASSERT_EQ(Starts(line).size(), replaced.Length());
		if (HasFatalFailure())
			return;
	}
}

TEST(Utf8Corpus, UnicodeDataWhole)
{
	std::string data;
	if (!ReadFile(kUnicodeDataPath, &data))
		GTEST_SKIP() << "Unicode data not found: " << kUnicodeDataPath
		             << " (install the unicode-data package)";
	const std::string text = UnicodeDataAsUtf8(data);
	CheckText(text, Budget{0, 12});
	if (HasFatalFailure())
		return;

	UTFString s(text.c_str());
	UTFString replaced(s);
	replaced.Replace(UTFString(";"), UTFString("\xE2\x80\xA2"));
	EXPECT_EQ(ReplaceAll(text, ";", "\xE2\x80\xA2"), Text(replaced));
	EXPECT_EQ(s.Length(), replaced.Length());
	replaced.Replace(UTFString("\xE2\x80\xA2"), UTFString(";"));
	// U+2022 itself was in the text and has become ";" too.
	EXPECT_EQ(ReplaceAll(text, "\xE2\x80\xA2", ";"), Text(replaced));

	// A late match: the last code point of the file.
	const std::vector<size_t> starts = Starts(text);
	const size_t lastLine = text.rfind('\n', text.size() - 2) + 1;
	const std::string lastChar = CharAt(text, starts, CharsBefore(starts, lastLine));
	EXPECT_EQ(CharsBefore(starts, text.find(lastChar)), s.InStr(UTFString(lastChar.c_str())));
}

namespace {

// Long ASCII runs are counted a block at a time; a lead byte just before such
// a run reaches into it, and the run must then be counted a character at a
// time. Every placement of one non-ASCII byte (a lead of each size, or a
// stray continuation byte) around the block edges gives the byte-wise count.
TEST(Utf8Corpus, AsciiRunsAfterALeadAtEveryBlockEdgeCountAsTheByteWiseWalk)
{
	const unsigned char kOdd[] = {0xC3, 0xE3, 0xF0, 0x80, 0xBF};
	for (unsigned char odd : kOdd) {
		for (size_t at = 0; at < 200; at++) {
			std::string text(320, 'a');
			text[at] = static_cast<char>(odd);
			const UTFString s(text.c_str());
			ASSERT_EQ(textmodel::Starts(text).size(), s.Length())
			    << "byte " << static_cast<int>(odd) << " at " << at;
		}
	}
}

} // namespace
