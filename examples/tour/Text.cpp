// Tour section: text. A UTFString counts and indexes characters, not bytes;
// it searches, splits, replaces and maps case by character index. The kx_
// functions step through raw UTF-8, and ZvRString is a bare owned byte
// string.
#include "Tour.h"

#include <UTFString.h>
#include <ZvRString.h>
#include <ZvUTF8.h>

#include <stdio.h>

namespace {

void ShowText()
{
	UTFString greeting("caf\xC3\xA9 \xE6\x97\xA5\xE6\x9C\xAC, ok");
	printf("  \"%s\": %u characters in %u bytes\n", greeting.Buffer(),
	       static_cast<unsigned>(greeting.Length()), static_cast<unsigned>(greeting.ByteLength()));
	printf("  character 5 is \"%s\" (%d bytes), \"%s\" starts at index %d\n",
	       greeting.GetChar(5).Buffer(), static_cast<int>(greeting.GetChar(5).ByteLength()),
	       "\xE6\x9C\xAC", static_cast<int>(greeting.InStr(UTFString("\xE6\x9C\xAC"))));

	UTFString word;
	UTFString rest;
	greeting.Split(UTFString(" "), word, rest);
	printf("  split at the space: \"%s\" | \"%s\"\n", word.Buffer(), rest.Buffer());

	// Left counts characters; Right never includes the first character and
	// Mid stops before the last one.
	UTFString abc("abc");
	printf("  \"abc\": Left(2) \"%s\", Right(10) \"%s\", Mid(0, 3) \"%s\"\n", abc.Left(2).Buffer(),
	       abc.Right(10).Buffer(), abc.Mid(0, 3).Buffer());

	UTFString edited(greeting);
	edited.Replace(UTFString("\xE6\x97\xA5\xE6\x9C\xAC"), UTFString("Japan"));
	edited.ToUpper();
	printf("  replaced and upper-cased: \"%s\" (%u characters)\n", edited.Buffer(),
	       static_cast<unsigned>(edited.Length()));

	// Stepping backwards through raw bytes.
	const char* text = greeting.Buffer();
	const char* p = text + greeting.ByteLength();
	printf("  last characters, walking back:");
	for (int i = 0; i < 6 && p != nullptr && p != text; i++) {
		p = kx_utf8_previous(p, text);
		if (p != nullptr)
			printf(" [%.*s]", static_cast<int>(kx_utf8_size(p)), p);
	}
	printf("\n");

	char safe[16];
	convert_ascii_to_utf8("na\xEFve", safe);
	printf("  8-bit text made safe: \"%s\"\n", safe);

	ZvRString raw;
	raw.use("abc");
	raw.concat("def");
	raw.cut(raw.data + 4);
	printf("  ZvRString: \"%s\" (%u bytes), byte 9 reads as %d\n", raw.data,
	       static_cast<unsigned>(raw.length), raw[9]);
	raw._free();
}

} // namespace

static TourSection sSection(50, "Text", &ShowText);
