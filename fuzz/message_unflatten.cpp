// Fuzzes the bounded ZvMessage::Unflatten. A refused block must leave the
// message empty; an accepted one must flatten back to the bytes it was read
// from (a negative count comes back as 0), and every field of it must be readable through the typed
// accessors.
#include <ZvMessage.h>

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

namespace {

// Reads every field through the accessor of its type; nested messages are
// opened in turn, to a bounded depth.
void ReadAll(const ZvMessage& message, int depth)
{
	char* name;
	type_code type;
	int32 count;
	for (int32 i = 0; message.GetInfo(ZV_ANY_TYPE, i, &name, &type, &count); i++) {
		int32 index = 0;
		type_code firstType;
		int32 sameName = 0;
		message.GetInfo(name, &firstType, &sameName);
		const char* text;
		ZvRect<int16> rect;
		ZvPoint<float> point;
		zv_color color;
		int64 wide;
		bool flag;
		switch (type) {
		case ZV_STRING_TYPE:
			if (message.FindString(name, index, &text))
				(void)strlen(text);
			break;
		case ZV_RECT_TYPE:
			message.FindRect(name, index, &rect);
			break;
		case ZV_POINT_TYPE:
			message.FindPoint(name, index, &point);
			break;
		case ZV_COLOR_TYPE:
			message.FindColor(name, index, &color);
			break;
		case ZV_INT64_TYPE:
			message.FindInt64(name, index, &wide);
			break;
		case ZV_BOOL_TYPE:
			message.FindBool(name, index, &flag);
			break;
		case ZV_MESSAGE_TYPE:
			if (depth < 8) {
				ZvMessage nested(0);
				if (message.FindMessage(name, index, &nested))
					ReadAll(nested, depth + 1);
				else if (!nested.IsEmpty())
					abort();
			}
			break;
		default:
			break;
		}
	}
	(void)message.CountNames(ZV_ANY_TYPE);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
	ZvMessage message(0);
	message.AddInt32("before", 1);
	if (!message.Unflatten(data, size)) {
		if (!message.IsEmpty())
			abort();
		return 0;
	}

	std::vector<uint8> again(message.FlattenedSize());
	int32 written = -1;
	if (!message.Flatten(again.data(), &written))
		abort();
	// A negative count is read as no records and flattens back as 0.
	int32 count;
	memcpy(&count, data + 8, sizeof(count));
	if (count < 0) {
		if (written != 12)
			abort();
		memcpy(again.data() + 8, &count, sizeof(count));
	}
	if (written < 0 || static_cast<size_t>(written) > size ||
	    memcmp(again.data(), data, written) != 0) {
		abort();
	}

	ReadAll(message, 0);
	return 0;
}
