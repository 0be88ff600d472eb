// MessageTestSupport.h: helpers shared by the message tests.
//
//  - FlatBytes: a message's flattened block as a byte vector.
//  - RandomMessageBuilder: fills a message with random fields of every type,
//    with repeated names and nested messages down to a given depth.
//  - NestedMessage: a message wrapped in itself deeper than the flat and
//    bridged forms' nesting limits.
#ifndef ZVKIT_MESSAGE_TEST_SUPPORT_H
#define ZVKIT_MESSAGE_TEST_SUPPORT_H

#include <ZvMessage.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace zvtest {

inline std::vector<uint8> FlatBytes(const ZvMessage& message)
{
	std::vector<uint8> bytes(message.FlattenedSize());
	int32 written = -1;
	message.Flatten(bytes.data(), &written);
	bytes.resize(written < 0 ? 0 : written);
	return bytes;
}

// A message holding an int32 "bottom" of 1, wrapped levels times: each level
// is a message whose what is its depth counted from the bottom (0 first) and
// whose one field "inner" holds the level below.
inline ZvMessage NestedMessage(int levels)
{
	ZvMessage message(0);
	message.AddInt32("bottom", 1);
	for (int i = 0; i < levels; i++) {
		ZvMessage outer(i);
		outer.AddMessage("inner", &message);
		message = outer;
	}
	return message;
}

class RandomMessageBuilder
{
public:
	explicit RandomMessageBuilder(uint32 seed) : fRandom(seed) {}

	// Adds between 0 and maxFields fields; a nested message recurses until
	// depth reaches 0.
	void Fill(ZvMessage* message, int depth, int maxFields = 12)
	{
		message->what = Word();
		message->SetFlags(Word());
		const int fields = Below(maxFields + 1);
		for (int i = 0; i < fields; i++)
			AddField(message, depth);
	}

	uint32 Word() { return static_cast<uint32>(fRandom()); }
	int Below(int limit) { return static_cast<int>(fRandom() % static_cast<uint32>(limit)); }

private:
	std::string Name()
	{
		// A small pool of names, so that names repeat across types.
		static const char* const kNames[] = {
		    "a",
		    "b",
		    "name",
		    "x",
		    "@@@Unnamed",
		    "",
		    "a-rather-long-field-name-of-exactly-sixty-three-characters-abcd"};
		return kNames[Below(sizeof(kNames) / sizeof(kNames[0]))];
	}

	void AddField(ZvMessage* message, int depth)
	{
		const std::string name = Name();
		const char* n = name.c_str();
		switch (Below(depth > 0 ? 15 : 14)) {
		case 0:
			message->AddBool(n, Below(2) == 1);
			break;
		case 1:
			message->AddInt8(n, static_cast<int8>(Word()));
			break;
		case 2:
			message->AddInt16(n, static_cast<int16>(Word()));
			break;
		case 3:
			message->AddInt32(n, static_cast<int32>(Word()));
			break;
		case 4:
			message->AddInt64(n, (static_cast<int64>(Word()) << 32) | Word());
			break;
		case 5:
			message->AddFloat(n, static_cast<float>(Word()) / 7.0f);
			break;
		case 6:
			message->AddDouble(n, static_cast<double>(Word()) / 3.0);
			break;
		case 7: {
			std::string text(Below(40), 'q');
			for (char& c : text)
				c = static_cast<char>('a' + Below(26));
			message->AddString(n, text.c_str());
			break;
		}
		case 8:
			message->AddPointer(n, reinterpret_cast<void*>(static_cast<uintptr_t>(Word())));
			break;
		case 9: {
			zv_color color(Word());
			message->AddColor(n, &color);
			break;
		}
		case 10:
			message->AddRect(n, ZvRect<double>{Word() / 3.0, 1.5, -2.25, Word() / 5.0});
			break;
		case 11:
			message->AddPoint(n, ZvPoint<int32>{static_cast<int32>(Word()), -7});
			break;
		case 12: {
			std::vector<uint8> raw(Below(64));
			for (uint8& byte : raw)
				byte = static_cast<uint8>(Word());
			// A caller-defined type code; raw may be empty.
			message->_AddData(n, 0x52415754, static_cast<int32>(raw.size()),
			                  raw.empty() ? "" : static_cast<const void*>(raw.data()));
			break;
		}
		case 13:
			message->AddData(n, ZV_INT32_TYPE, "\x01\x02\x03\x04", 4);
			break;
		case 14: {
			ZvMessage nested(Word());
			Fill(&nested, depth - 1, 5);
			message->AddMessage(n, &nested);
			break;
		}
		}
	}

	std::mt19937 fRandom;
};

} // namespace zvtest

#endif // ZVKIT_MESSAGE_TEST_SUPPORT_H
