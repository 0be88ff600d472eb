// Benchmarks of the text classes on 1 MiB of mostly-ASCII and 1 MiB of
// mostly-CJK text:
//  - constructing a UTFString (copy + character count) against utfcpp's
//    unchecked distance plus a copy, and against strlen + memcpy (the limit);
//  - InStr of a match near the end, against strstr + utfcpp distance;
//  - Replace of a frequent one-character pattern, against a plain
//    std::string replace-all (both include taking a fresh copy of the text).
//    Each of these iterations handles 1 MiB, so the time per iteration is
//    the time per MiB;
//  - Replace on Latin-1 text (malformed UTF-8) from 64 KiB to 4 MiB, of a
//    malformed pattern ("\xE9"), of a well-formed one (";") and by a
//    malformed new text, against the std::string replace-all: the bytes per
//    second stay the same at every size when the cost per byte is flat.
#include <UTFString.h>

#include <benchmark/benchmark.h>

#include <utf8cpp/utf8.h>

#include <string.h>

#include <string>

namespace {

const size_t kTextBytes = 1 << 20;

// Deterministic pseudo-random words: mostly ASCII with an accented letter or
// an ideograph now and then.
std::string MakeAsciiText()
{
	static const char* const kWords[] = {"the",     "quick",  "brown",   "fox",          "jumps",
	                                     "over",    "lazy",   "dog",     "caf\xC3\xA9",  "system",
	                                     "message", "looper", "handler", "\xE6\x97\xA5", "and",
	                                     "of",      "to",     "in",      "text",         "string"};
	std::string text;
	uint32 state = 12345;
	while (text.size() < kTextBytes - 16) {
		state = state * 1103515245u + 12345u;
		text += kWords[(state >> 16) % 20];
		text += (state >> 8) % 11 == 0 ? ".\n" : " ";
	}
	text.resize(kTextBytes - 16);
	text += " needle at end";
	return text;
}

// Mostly ideographs and kana, with the frequent particle の, full-width and
// ASCII punctuation now and then.
std::string MakeCjkText()
{
	std::string text;
	uint32 state = 54321;
	while (text.size() < kTextBytes - 16) {
		state = state * 1103515245u + 12345u;
		const uint32 pick = (state >> 16) % 40;
		if (pick == 0) {
			text += "\xE3\x80\x82"; // 。
		} else if (pick == 1) {
			text += ", ";
		} else if (pick < 8) {
			text += "\xE3\x81\xAE"; // の
		} else {
			// U+4E00 .. U+4E00 + 4095
			const uint32 cp = 0x4E00 + ((state >> 4) & 0xFFF);
			text += static_cast<char>(0xE0 | (cp >> 12));
			text += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
			text += static_cast<char>(0x80 | (cp & 0x3F));
		}
	}
	text += "\xE7\xB5\x82\xE3\x82\x8F\xE3\x82\x8A"; // 終わり
	return text;
}

const std::string& Text(bool cjk)
{
	static const std::string ascii = MakeAsciiText();
	static const std::string kanji = MakeCjkText();
	return cjk ? kanji : ascii;
}

const char* LateNeedle(bool cjk)
{
	return cjk ? "\xE7\xB5\x82\xE3\x82\x8F" : "needle at";
}

const char* FrequentChar(bool cjk)
{
	return cjk ? "\xE3\x81\xAE" : " ";
}

const char* ReplacementChar(bool cjk)
{
	return cjk ? "\xE3\x81\x8C" : "_";
}

void SetBytes(benchmark::State& state, bool cjk)
{
	state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * Text(cjk).size());
}

template <bool kCjk> void ConstructZvKit(benchmark::State& state)
{
	const char* text = Text(kCjk).c_str();
	for (auto _ : state) {
		UTFString s(text);
		benchmark::DoNotOptimize(s.Length());
		benchmark::DoNotOptimize(s.Buffer());
	}
	SetBytes(state, kCjk);
}

// A copy of the text as the peers make it (measure, allocate, copy), counted
// with utfcpp when kCount is set.
template <bool kCjk, bool kCount> void ConstructPeer(benchmark::State& state)
{
	const char* text = Text(kCjk).c_str();
	for (auto _ : state) {
		const size_t n = strlen(text);
		char* copy = new char[n + 1];
		memcpy(copy, text, n + 1);
		benchmark::DoNotOptimize(copy);
		if (kCount)
			benchmark::DoNotOptimize(utf8::unchecked::distance(copy, copy + n));
		benchmark::ClobberMemory();
		delete[] copy;
	}
	SetBytes(state, kCjk);
}

template <bool kCjk> void InStrZvKit(benchmark::State& state)
{
	const UTFString s(Text(kCjk).c_str());
	const UTFString needle(LateNeedle(kCjk));
	for (auto _ : state)
		benchmark::DoNotOptimize(s.InStr(needle));
	SetBytes(state, kCjk);
}

template <bool kCjk> void InStrStrstrUtfcpp(benchmark::State& state)
{
	const char* text = Text(kCjk).c_str();
	const char* needle = LateNeedle(kCjk);
	for (auto _ : state) {
		const char* match = strstr(text, needle);
		benchmark::DoNotOptimize(utf8::unchecked::distance(text, match));
	}
	SetBytes(state, kCjk);
}

template <bool kCjk> void ReplaceZvKit(benchmark::State& state)
{
	const UTFString original(Text(kCjk).c_str());
	const UTFString old(FrequentChar(kCjk));
	const UTFString with(ReplacementChar(kCjk));
	for (auto _ : state) {
		UTFString s(original);
		s.Replace(old, with);
		benchmark::DoNotOptimize(s.Buffer());
	}
	SetBytes(state, kCjk);
}

template <bool kCjk> void ReplaceStdString(benchmark::State& state)
{
	const std::string& original = Text(kCjk);
	const std::string old(FrequentChar(kCjk));
	const std::string with(ReplacementChar(kCjk));
	for (auto _ : state) {
		std::string out;
		out.reserve(original.size());
		size_t from = 0;
		for (size_t at = original.find(old); at != std::string::npos;
		     at = original.find(old, from)) {
			out.append(original, from, at - from);
			out += with;
			from = at + old.size();
		}
		out.append(original, from, std::string::npos);
		benchmark::DoNotOptimize(out.data());
	}
	SetBytes(state, kCjk);
}

// Latin-1 text of the given size: every accented letter is one byte that
// reads as a UTF-8 lead.
std::string MakeLatin1Text(size_t bytes)
{
	std::string text;
	while (text.size() < bytes)
		text += "caf\xE9 au lait, cr\xE8me br\xFBl\xE9"
		        "e; ";
	text.resize(bytes);
	return text;
}

struct Latin1Case
{
	const char* old;
	const char* with;
};

const Latin1Case kLatin1Cases[] = {
    {"\xE9", "e"}, // malformed pattern
    {";", ","},    // well-formed pattern
    {";", "\xE9"}, // malformed new text
};

template <int kCase> void ReplaceLatin1ZvKit(benchmark::State& state)
{
	const std::string text = MakeLatin1Text(static_cast<size_t>(state.range(0)));
	const UTFString original(text.c_str());
	const UTFString old(kLatin1Cases[kCase].old);
	const UTFString with(kLatin1Cases[kCase].with);
	for (auto _ : state) {
		UTFString s(original);
		s.Replace(old, with);
		benchmark::DoNotOptimize(s.Buffer());
	}
	state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * text.size());
}

// A byte-wise replace-all over a fresh copy: the linear cost to compare with.
template <int kCase> void ReplaceLatin1StdString(benchmark::State& state)
{
	const std::string original = MakeLatin1Text(static_cast<size_t>(state.range(0)));
	const std::string old(kLatin1Cases[kCase].old);
	const std::string with(kLatin1Cases[kCase].with);
	for (auto _ : state) {
		std::string copy(original);
		std::string out;
		out.reserve(copy.size());
		size_t from = 0;
		for (size_t at = copy.find(old); at != std::string::npos; at = copy.find(old, from)) {
			out.append(copy, from, at - from);
			out += with;
			from = at + old.size();
		}
		out.append(copy, from, std::string::npos);
		benchmark::DoNotOptimize(out.data());
	}
	state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * original.size());
}

} // namespace

BENCHMARK_TEMPLATE(ConstructZvKit, false)->Name("ConstructAscii:zvkit");
BENCHMARK_TEMPLATE(ConstructPeer, false, true)->Name("ConstructAscii:utfcpp");
BENCHMARK_TEMPLATE(ConstructPeer, false, false)->Name("ConstructAscii:strlen_memcpy");
BENCHMARK_TEMPLATE(ConstructZvKit, true)->Name("ConstructCjk:zvkit");
BENCHMARK_TEMPLATE(ConstructPeer, true, true)->Name("ConstructCjk:utfcpp");
BENCHMARK_TEMPLATE(ConstructPeer, true, false)->Name("ConstructCjk:strlen_memcpy");
BENCHMARK_TEMPLATE(InStrZvKit, false)->Name("InStrLateAscii:zvkit");
BENCHMARK_TEMPLATE(InStrStrstrUtfcpp, false)->Name("InStrLateAscii:strstr_utfcpp");
BENCHMARK_TEMPLATE(InStrZvKit, true)->Name("InStrLateCjk:zvkit");
BENCHMARK_TEMPLATE(InStrStrstrUtfcpp, true)->Name("InStrLateCjk:strstr_utfcpp");
BENCHMARK_TEMPLATE(ReplaceZvKit, false)->Name("ReplaceFrequentAscii:zvkit");
BENCHMARK_TEMPLATE(ReplaceStdString, false)->Name("ReplaceFrequentAscii:std_string");
BENCHMARK_TEMPLATE(ReplaceZvKit, true)->Name("ReplaceFrequentCjk:zvkit");
BENCHMARK_TEMPLATE(ReplaceStdString, true)->Name("ReplaceFrequentCjk:std_string");

BENCHMARK_TEMPLATE(ReplaceLatin1ZvKit, 0)
    ->Name("ReplaceLatin1MalformedPattern:zvkit")
    ->RangeMultiplier(4)
    ->Range(64 << 10, 4 << 20);
BENCHMARK_TEMPLATE(ReplaceLatin1StdString, 0)
    ->Name("ReplaceLatin1MalformedPattern:std_string")
    ->RangeMultiplier(4)
    ->Range(64 << 10, 4 << 20);
BENCHMARK_TEMPLATE(ReplaceLatin1ZvKit, 1)
    ->Name("ReplaceLatin1WellFormedPattern:zvkit")
    ->RangeMultiplier(4)
    ->Range(64 << 10, 4 << 20);
BENCHMARK_TEMPLATE(ReplaceLatin1StdString, 1)
    ->Name("ReplaceLatin1WellFormedPattern:std_string")
    ->RangeMultiplier(4)
    ->Range(64 << 10, 4 << 20);
BENCHMARK_TEMPLATE(ReplaceLatin1ZvKit, 2)
    ->Name("ReplaceLatin1MalformedNewText:zvkit")
    ->RangeMultiplier(4)
    ->Range(64 << 10, 4 << 20);
BENCHMARK_TEMPLATE(ReplaceLatin1StdString, 2)
    ->Name("ReplaceLatin1MalformedNewText:std_string")
    ->RangeMultiplier(4)
    ->Range(64 << 10, 4 << 20);

BENCHMARK_MAIN();
