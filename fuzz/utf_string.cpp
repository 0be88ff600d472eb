// Fuzz target for the text classes: drives a UTFString through a sequence of
// operations decoded from the input (with its invariants checked after each
// one), runs the kx_ stepping functions over raw bytes, and a ZvRString
// through its few operations. Every buffer handed over has exactly its own
// size, so AddressSanitizer reports any read past a terminator.
#include <UTFString.h>
#include <ZvRString.h>
#include <ZvUTF8.h>

#include <fuzzer/FuzzedDataProvider.h>

#include <stdlib.h>
#include <string.h>

#include <memory>
#include <string>
#include <vector>

namespace {

const size_t kMaxBytes = 2048;

void Check(bool condition)
{
	if (!condition)
		abort();
}

// Character starts by the lead-byte rule, stopping at the end.
std::vector<size_t> Starts(const char* text)
{
	std::vector<size_t> starts;
	const size_t n = strlen(text);
	for (size_t i = 0; i < n;) {
		starts.push_back(i);
		i += kx_utf8_size(text + i);
	}
	return starts;
}

void CheckInvariants(const UTFString& s)
{
	if (s.Buffer() == nullptr)
		return;
	Check(s.Length() == Starts(s.Buffer()).size());
	Check(s.ByteLength() == strlen(s.Buffer()));
}

enum ReferenceOutcome
{
	kEnded,
	kNeverEnds,
	kGaveUp
};

// The replacement loop written out with Left, Right and InStr. Malformed
// text can make it copy ever more of the string; beyond 4 KiB it gives up.
ReferenceOutcome ReferenceReplace(UTFString& s, const UTFString& old, const UTFString& with,
                                  size_t maxPasses)
{
	int32 p = s.InStr(old);
	size_t passes = 0;
	while (p != -1) {
		if (++passes > maxPasses)
			return kNeverEnds;
		s = s.Left(p) + with + s.Right(s.Length() - (old.Length() + p));
		if (s.ByteLength() > 4096)
			return kGaveUp;
		p = s.InStr(p + static_cast<int32>(old.Length()), old);
	}
	return kEnded;
}

void FuzzPrimitives(const std::string& bytes)
{
	// A heap copy of exactly the bytes plus a terminator.
	const size_t n = bytes.size();
	std::unique_ptr<char[]> text(new char[n + 1]);
	memcpy(text.get(), bytes.data(), n);
	text[n] = '\0';
	const char* start = text.get();
	const char* end = start + n;
	for (const char* p = start; p < end; p++) {
		const int32 size = kx_utf8_size(p);
		Check(size >= 1 && size <= 4);
		const char* next = kx_utf8_next(p);
		Check(next == p || (next > p && next <= p + 4));
		const int32 back = kx_utf8_previous_size(p, start);
		const char* previous = kx_utf8_previous(p, start);
		Check(back >= 0 && back <= 4);
		if (back > 0)
			Check(previous == p - back);
		Check(previous == nullptr || (previous >= start && previous <= p));
		Check(unicode_range(p) <= 8);
	}
	Check(kx_utf8_previous_size(end, start) <= 4);
	std::unique_ptr<char[]> converted(new char[strlen(start) + 1]);
	convert_ascii_to_utf8(start, converted.get());
	Check(strlen(converted.get()) == strlen(start));
	convert_ascii_to_utf8(text.get(), text.get());
	for (const char* p = start; *p != '\0'; p++)
		Check(static_cast<unsigned char>(*p) < 0x80);
}

void FuzzSmallString(FuzzedDataProvider& input)
{
	ZvRString r;
	for (int i = 0; i < 8 && input.remaining_bytes() > 0; i++) {
		const std::string piece = input.ConsumeRandomLengthString(32);
		switch (input.ConsumeIntegralInRange(0, 4)) {
		case 0:
			r.use(piece.c_str());
			break;
		case 1:
			r.concat(piece.c_str());
			break;
		case 2:
			r.setData(piece.data(), static_cast<uint32>(piece.size()));
			break;
		case 3:
			if (r.data != nullptr)
				r.cut(r.data + input.ConsumeIntegralInRange<uint32>(0, r.length + 1));
			break;
		default:
			Check(r[input.ConsumeIntegral<uint32>()] == 0 || r.length > 0);
			break;
		}
	}
	r._free();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
	FuzzedDataProvider input(data, size);
	FuzzPrimitives(input.ConsumeRandomLengthString(64));

	UTFString s(input.ConsumeRandomLengthString(64).c_str());
	while (input.remaining_bytes() > 0) {
		const int op = input.ConsumeIntegralInRange(0, 15);
		const uint32 a = input.ConsumeIntegralInRange<uint32>(0, 40);
		const uint32 b = input.ConsumeIntegralInRange<uint32>(0, 40);
		const std::string arg = input.ConsumeRandomLengthString(16);
		const UTFString other(arg.c_str());
		switch (op) {
		case 0:
			s = arg.c_str();
			break;
		case 1:
			s += other;
			break;
		case 2:
			s.Insert(a, b, other);
			break;
		case 3:
			(void)s.Remove(a, b);
			break;
		case 4: {
			UTFString left;
			UTFString right;
			s.Split(a, left, right);
			if (s.Buffer() != nullptr) {
				Check(left + right == s);
				Check(left.Length() + right.Length() == s.Length());
			}
			break;
		}
		case 5: {
			const UTFString l = s.Left(a);
			const UTFString r = s.Right(b);
			const UTFString m = s.Mid(a, b);
			const UTFString t = s.StringAt(static_cast<int32>(a) - 2);
			Check(l.Length() <= s.Length() && r.Length() <= s.Length());
			Check(m.Length() <= s.Length() && t.Length() <= s.Length());
			break;
		}
		case 6: {
			const int32 at = s.InStr(other);
			const int32 from = s.InStr(static_cast<int32>(a) - 1, other);
			Check(at >= -1 && at <= static_cast<int32>(s.Length()));
			Check(from == -1 || from >= static_cast<int32>(a) - 1);
			break;
		}
		case 7: {
			const std::string with = input.ConsumeRandomLengthString(8);
			UTFString expected(s);
			const UTFString replacement(with.c_str());
			// The written-out loop costs a pass over the text per
			// replacement: compare on short texts only.
			const ReferenceOutcome outcome =
			    s.ByteLength() <= 256
			        ? ReferenceReplace(expected, other, replacement, s.ByteLength() + 1)
			        : kGaveUp;
			const UTFString before(s);
			s.Replace(other, replacement);
			if (outcome != kGaveUp && s.Buffer() != nullptr)
				Check(outcome == kEnded ? s == expected : s == before);
			break;
		}
		case 8:
			s.ToUpper();
			break;
		case 9:
			s.ToLower();
			break;
		case 10: {
			const UTFChar c = s.GetChar(a);
			Check(c.Buffer()[0] == s.GetChar8(a));
			break;
		}
		case 11:
			s.SetChar(UTFChar(arg.c_str()), a);
			break;
		case 12: {
			UTFString left("l");
			UTFString right("r");
			if (s.Split(other, left, right) && s.Buffer() != nullptr)
				Check(left.Length() <= s.Length());
			(void)s.SplitChar(other, left, right);
			break;
		}
		case 13:
			s.StrCat(arg.c_str());
			s.CalcLength();
			break;
		case 14:
			s.ClearBuffer();
			s.CopyString(b % 2 == 0 ? arg.c_str() : nullptr);
			break;
		default:
			s = s + s;
			break;
		}
		CheckInvariants(s);
		if (s.ByteLength() > kMaxBytes)
			s = "";
	}
	FuzzSmallString(input);
	return 0;
}
