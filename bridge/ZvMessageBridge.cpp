// Conversion between ZvMessage and the platform's BMessage.
//
// This sits above both message classes: the message container itself never
// depends on the platform's application kit, so the bridge is a component
// of its own, at the level of the data subscription classes (which use
// the application kit and the library's kernel wrappers).
#include <ZvMessageBridge.h>

#include <GraphicsDefs.h>
#include <Rect.h>
#include <TypeConstants.h>
#include <ZvColor.h>

#include <string.h>

namespace {

constexpr int kMaxNesting = 64;

// The items of a message in order, through a copy (the item list is kept
// for the message and its subclasses).
class ItemView : public ZvMessage
{
public:
	explicit ItemView(const ZvMessage& message) : ZvMessage(message) {}
	int32 Count() const { return items.CountItems(); }
	const ZvMessageItem* At(int32 index) const { return items.ItemAt(index); }
};

template <typename T> bool Load(const ZvMessageItem* item, T* value)
{
	if (item->data == nullptr || item->size < static_cast<int32>(sizeof(T)))
		return false;
	memcpy(value, item->data, sizeof(T));
	return true;
}

status_t ToB(const ZvMessage& source, BMessage* target, int depth, int32* dropped);
status_t FromB(const BMessage& source, ZvMessage* target, int depth, int32* dropped);

// Adds one item to target; false when it finds no place there.
bool AddToB(const ZvMessageItem* item, BMessage* target, int depth, int32* dropped)
{
	const char* name = item->name;
	switch (item->type) {
	case ZV_BOOL_TYPE: {
		uint8 value;
		return Load(item, &value) && target->AddBool(name, value != 0) == B_OK;
	}
	case ZV_INT8_TYPE: {
		int8 value;
		return Load(item, &value) && target->AddInt8(name, value) == B_OK;
	}
	case ZV_INT16_TYPE: {
		int16 value;
		return Load(item, &value) && target->AddInt16(name, value) == B_OK;
	}
	case ZV_INT32_TYPE: {
		int32 value;
		return Load(item, &value) && target->AddInt32(name, value) == B_OK;
	}
	case ZV_INT64_TYPE: {
		int64 value;
		return Load(item, &value) && target->AddInt64(name, value) == B_OK;
	}
	case ZV_FLOAT_TYPE: {
		float value;
		return Load(item, &value) && target->AddFloat(name, value) == B_OK;
	}
	case ZV_DOUBLE_TYPE: {
		double value;
		return Load(item, &value) && target->AddDouble(name, value) == B_OK;
	}
	case ZV_STRING_TYPE:
		if (item->data == nullptr || item->size < 1 || memchr(item->data, 0, item->size) == nullptr)
			return false;
		return target->AddString(name, reinterpret_cast<const char*>(item->data)) == B_OK;
	case ZV_POINTER_TYPE: {
		void* value;
		if (item->size != static_cast<int32>(sizeof(void*)) || !Load(item, &value))
			return false;
		return target->AddPointer(name, value) == B_OK;
	}
	case ZV_RECT_TYPE: {
		double edges[4];
		if (item->size != 32 || !Load(item, &edges))
			return false;
		const BRect rect(static_cast<float>(edges[0]), static_cast<float>(edges[1]),
		                 static_cast<float>(edges[2]), static_cast<float>(edges[3]));
		return target->AddData(name, B_RECT_TYPE, &rect, sizeof(rect)) == B_OK;
	}
	case ZV_POINT_TYPE: {
		double xy[2];
		if (item->size != 16 || !Load(item, &xy))
			return false;
		const float point[2] = {static_cast<float>(xy[0]), static_cast<float>(xy[1])};
		return target->AddData(name, B_POINT_TYPE, point, sizeof(point)) == B_OK;
	}
	case ZV_COLOR_TYPE: {
		uint8 channels[8];
		if (item->size != 8 || !Load(item, &channels))
			return false;
		const rgb_color color = {channels[0], channels[1], channels[2], channels[3]};
		return target->AddData(name, B_RGB_COLOR_TYPE, &color, sizeof(color)) == B_OK;
	}
	case ZV_MESSAGE_TYPE: {
		ZvMessage nested(0);
		if (depth >= kMaxNesting || item->data == nullptr ||
		    !nested.Unflatten(item->data, static_cast<size_t>(item->size))) {
			return false;
		}
		BMessage converted;
		// Items dropped inside are counted there; the nested message itself
		// still finds its place.
		ToB(nested, &converted, depth + 1, dropped);
		return target->AddMessage(name, &converted) == B_OK;
	}
	default:
		if (item->size < 1 || item->data == nullptr)
			return false;
		return target->AddData(name, item->type, item->data, item->size, false) == B_OK;
	}
}

status_t ToB(const ZvMessage& source, BMessage* target, int depth, int32* dropped)
{
	target->MakeEmpty();
	target->what = source.what;
	const ItemView view(source);
	int32 lost = 0;
	for (int32 i = 0; i < view.Count(); i++) {
		if (!AddToB(view.At(i), target, depth, dropped))
			lost++;
	}
	*dropped += lost;
	return lost == 0 ? B_OK : B_MISMATCHED_VALUES;
}

// Adds the index-th item of the field name (of type) to target.
bool AddFromB(const BMessage& source, const char* name, type_code type, int32 index,
              ZvMessage* target, int depth, int32* dropped)
{
	switch (type) {
	case B_BOOL_TYPE: {
		bool value;
		return source.FindBool(name, index, &value) == B_OK && target->AddBool(name, value);
	}
	case B_INT8_TYPE: {
		int8 value;
		return source.FindInt8(name, index, &value) == B_OK && target->AddInt8(name, value);
	}
	case B_INT16_TYPE: {
		int16 value;
		return source.FindInt16(name, index, &value) == B_OK && target->AddInt16(name, value);
	}
	case B_INT32_TYPE: {
		int32 value;
		return source.FindInt32(name, index, &value) == B_OK && target->AddInt32(name, value);
	}
	case B_INT64_TYPE: {
		int64 value;
		return source.FindInt64(name, index, &value) == B_OK && target->AddInt64(name, value);
	}
	case B_FLOAT_TYPE: {
		float value;
		return source.FindFloat(name, index, &value) == B_OK && target->AddFloat(name, value);
	}
	case B_DOUBLE_TYPE: {
		double value;
		return source.FindDouble(name, index, &value) == B_OK && target->AddDouble(name, value);
	}
	case B_STRING_TYPE: {
		const char* value;
		return source.FindString(name, index, &value) == B_OK && target->AddString(name, value);
	}
	case B_POINTER_TYPE: {
		void* value;
		return source.FindPointer(name, index, &value) == B_OK && target->AddPointer(name, value);
	}
	case B_MESSAGE_TYPE: {
		BMessage nested;
		if (depth >= kMaxNesting || source.FindMessage(name, index, &nested) != B_OK)
			return false;
		ZvMessage converted(0);
		FromB(nested, &converted, depth + 1, dropped);
		return target->AddMessage(name, &converted);
	}
	default:
		break;
	}

	const void* data;
	ssize_t size;
	if (source.FindData(name, type, index, &data, &size) != B_OK)
		return false;
	switch (type) {
	case B_RECT_TYPE: {
		BRect rect;
		if (size != static_cast<ssize_t>(sizeof(rect)))
			return false;
		memcpy(&rect, data, sizeof(rect));
		return target->AddRect(name, ZvRect<float>{rect.left, rect.top, rect.right, rect.bottom});
	}
	case B_POINT_TYPE: {
		float xy[2];
		if (size != static_cast<ssize_t>(sizeof(xy)))
			return false;
		memcpy(xy, data, sizeof(xy));
		return target->AddPoint(name, ZvPoint<float>{xy[0], xy[1]});
	}
	case B_RGB_COLOR_TYPE: {
		rgb_color color;
		if (size != static_cast<ssize_t>(sizeof(color)))
			return false;
		memcpy(&color, data, sizeof(color));
		const zv_color converted(color);
		return target->AddColor(name, &converted);
	}
	default:
		return target->_AddData(name, type, static_cast<int32>(size), data);
	}
}

status_t FromB(const BMessage& source, ZvMessage* target, int depth, int32* dropped)
{
	target->MakeEmpty();
	target->what = source.what;
	int32 lost = 0;
	char* name;
	type_code type;
	int32 count;
	for (int32 field = 0; source.GetInfo(B_ANY_TYPE, field, &name, &type, &count) == B_OK;
	     field++) {
		for (int32 index = 0; index < count; index++) {
			if (!AddFromB(source, name, type, index, target, depth, dropped))
				lost++;
		}
	}
	*dropped += lost;
	return lost == 0 ? B_OK : B_MISMATCHED_VALUES;
}

} // namespace

status_t ZV_ToBMessage(const ZvMessage* source, BMessage* target, int32* dropped)
{
	if (source == nullptr || target == nullptr)
		return B_BAD_VALUE;
	int32 lost = 0;
	ToB(*source, target, 0, &lost);
	if (dropped != nullptr)
		*dropped = lost;
	return lost == 0 ? B_OK : B_MISMATCHED_VALUES;
}

status_t ZV_FromBMessage(const BMessage* source, ZvMessage* target, int32* dropped)
{
	if (source == nullptr || target == nullptr)
		return B_BAD_VALUE;
	int32 lost = 0;
	FromB(*source, target, 0, &lost);
	if (dropped != nullptr)
		*dropped = lost;
	return lost == 0 ? B_OK : B_MISMATCHED_VALUES;
}
