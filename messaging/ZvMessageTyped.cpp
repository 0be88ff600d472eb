// The typed field accessors of ZvMessage. Each family fixes a type code and a
// stored size; the families share the templates below.
#include <ZvMessage.h>

#include "base/internal/NumericCast.h"

#include <math.h>
#include <string.h>

#include <vector>

namespace {

// Type code of each fixed-size value type.
template <typename T> struct FieldType;
template <> struct FieldType<bool>
{
	static constexpr type_code kCode = ZV_BOOL_TYPE;
};
template <> struct FieldType<int8>
{
	static constexpr type_code kCode = ZV_INT8_TYPE;
};
template <> struct FieldType<int16>
{
	static constexpr type_code kCode = ZV_INT16_TYPE;
};
template <> struct FieldType<int32>
{
	static constexpr type_code kCode = ZV_INT32_TYPE;
};
template <> struct FieldType<int64>
{
	static constexpr type_code kCode = ZV_INT64_TYPE;
};
template <> struct FieldType<float>
{
	static constexpr type_code kCode = ZV_FLOAT_TYPE;
};
template <> struct FieldType<double>
{
	static constexpr type_code kCode = ZV_DOUBLE_TYPE;
};
template <> struct FieldType<void*>
{
	static constexpr type_code kCode = ZV_POINTER_TYPE;
};
template <> struct FieldType<zv_color>
{
	static constexpr type_code kCode = ZV_COLOR_TYPE;
};

// Replaces the item's value with length bytes at source, passing size to the
// item's ReplaceData. The item copies its stored size, which never shrinks;
// when that is more than the source holds, the source is padded with zeros so
// that nothing is read past it.
void ReplacePadded(ZvMessageItem* item, int32 size, const void* source, size_t length)
{
	const size_t needed = static_cast<size_t>(MAX(MAX(size, item->size), int32(0)));
	if (needed <= length) {
		item->ReplaceData(size, source);
		return;
	}
	std::vector<uint8> padded(needed, 0);
	memcpy(padded.data(), source, length);
	item->ReplaceData(size, padded.data());
}

// Reads a value of type T from an item's block; a block shorter than T fills
// the rest with zeros.
template <typename T> T LoadValue(const ZvMessageItem* item)
{
	T value{};
	if (item->data == nullptr || item->size <= 0)
		return value;
	// The usual case, a block of at least T's size, copies a fixed length.
	if (static_cast<size_t>(item->size) >= sizeof(T))
		memcpy(&value, item->data, sizeof(T));
	else
		memcpy(&value, item->data, static_cast<size_t>(item->size));
	return value;
}

// A stored bool byte is any value; only 0 is false.
template <> bool LoadValue<bool>(const ZvMessageItem* item)
{
	return LoadValue<uint8>(item) != 0;
}

template <typename T> bool AddValue(ZvMessage* message, const char* name, const T& value)
{
	return message->_AddData(name, FieldType<T>::kCode, sizeof(T), &value);
}

template <typename T, typename Out>
bool FindValue(const ZvMessage* message, const char* name, int32 index, Out* out)
{
	ZvMessageItem* item;
	if (out == nullptr || !message->_FindData(name, FieldType<T>::kCode, index, &item))
		return false;
	*out = static_cast<Out>(LoadValue<T>(item));
	return true;
}

template <typename T>
bool ReplaceValue(ZvMessage* message, const char* name, int32 index, const T& value)
{
	ZvMessageItem* item;
	if (!message->_FindData(name, FieldType<T>::kCode, index, &item))
		return false;
	ReplacePadded(item, sizeof(T), &value, sizeof(T));
	return true;
}

// Rectangles and points: their elements, in stored order.
template <typename E> constexpr int32 ElementCount(const ZvRect<E>*)
{
	return 4;
}
template <typename E> constexpr int32 ElementCount(const ZvPoint<E>*)
{
	return 2;
}
template <typename E> constexpr type_code ShapeType(const ZvRect<E>*)
{
	return ZV_RECT_TYPE;
}
template <typename E> constexpr type_code ShapeType(const ZvPoint<E>*)
{
	return ZV_POINT_TYPE;
}

template <typename E> void ToDoubles(const ZvRect<E>& rect, double* out)
{
	out[0] = rect.left;
	out[1] = rect.top;
	out[2] = rect.right;
	out[3] = rect.bottom;
}
template <typename E> void ToDoubles(const ZvPoint<E>& point, double* out)
{
	out[0] = point.x;
	out[1] = point.y;
}

template <typename E> E FromDouble(double value);
template <> double FromDouble<double>(double value)
{
	return value;
}
template <> float FromDouble<float>(double value)
{
	return static_cast<float>(value);
}
template <> int32 FromDouble<int32>(double value)
{
	return zvkit::internal::TruncateToInt32(value);
}
template <> int16 FromDouble<int16>(double value)
{
	// The low 16 bits of the 32-bit truncation.
	return static_cast<int16>(
	    static_cast<uint16>(static_cast<uint32>(zvkit::internal::TruncateToInt32(value))));
}

template <typename E> void FromDoubles(const double* in, ZvRect<E>* rect)
{
	rect->left = FromDouble<E>(in[0]);
	rect->top = FromDouble<E>(in[1]);
	rect->right = FromDouble<E>(in[2]);
	rect->bottom = FromDouble<E>(in[3]);
}
template <typename E> void FromDoubles(const double* in, ZvPoint<E>* point)
{
	point->x = FromDouble<E>(in[0]);
	point->y = FromDouble<E>(in[1]);
}

template <typename Shape> bool AddShape(ZvMessage* message, const char* name, const Shape& shape)
{
	double stored[4];
	ToDoubles(shape, stored);
	const int32 count = ElementCount(&shape);
	return message->_AddData(name, ShapeType(&shape), count * sizeof(double), stored);
}

template <typename Shape>
bool ReplaceShape(ZvMessage* message, const char* name, int32 index, const Shape& shape)
{
	ZvMessageItem* item;
	if (!message->_FindData(name, ShapeType(&shape), index, &item))
		return false;
	double stored[4];
	ToDoubles(shape, stored);
	// The size passed is 4 whatever the shape: the stored size never
	// shrinks, so an item made by AddShape still receives every element.
	ReplacePadded(item, 4, stored, ElementCount(&shape) * sizeof(double));
	return true;
}

template <typename E, template <typename> class Shape>
bool FindShape(const ZvMessage* message, const char* name, int32 index, Shape<E>* shape)
{
	ZvMessageItem* item;
	if (shape == nullptr || !message->_FindData(name, ShapeType(shape), index, &item))
		return false;

	const size_t count = ElementCount(shape);
	if (static_cast<size_t>(item->size) == count * sizeof(double)) {
		double stored[4];
		memcpy(stored, item->data, count * sizeof(double));
		FromDoubles(stored, shape);
		return true;
	}
	// Another size: the bytes are taken as elements of the requested type,
	// as far as the block reaches. A double shape is left as it was.
	if (sizeof(E) != sizeof(double) && item->size > 0 && item->data != nullptr) {
		memcpy(static_cast<void*>(shape), item->data,
		       MIN(static_cast<size_t>(item->size), count * sizeof(E)));
	}
	return true;
}

} // namespace

// bool

bool ZvMessage::AddBool(const char* name, bool value)
{
	return AddValue(this, name, value);
}

bool ZvMessage::FindBool(const char* name, int32 index, bool* value) const
{
	return FindValue<bool>(this, name, index, value);
}

bool ZvMessage::FindBool(const char* name, bool* value) const
{
	return FindValue<bool>(this, name, 0, value);
}

bool ZvMessage::ReplaceBool(const char* name, int32 index, bool value)
{
	return ReplaceValue(this, name, index, value);
}

bool ZvMessage::ReplaceBool(const char* name, bool value)
{
	return ReplaceValue(this, name, 0, value);
}

bool ZvMessage::HasBool(const char* name, int32 index) const
{
	return _HasData(name, ZV_BOOL_TYPE, index);
}

// int8

bool ZvMessage::AddInt8(const char* name, int8 value)
{
	return AddValue(this, name, value);
}

bool ZvMessage::FindInt8(const char* name, int32 index, int8* value) const
{
	return FindValue<int8>(this, name, index, value);
}

bool ZvMessage::FindInt8(const char* name, int8* value) const
{
	return FindValue<int8>(this, name, 0, value);
}

bool ZvMessage::ReplaceInt8(const char* name, int32 index, int8 value)
{
	return ReplaceValue(this, name, index, value);
}

bool ZvMessage::ReplaceInt8(const char* name, int8 value)
{
	return ReplaceValue(this, name, 0, value);
}

bool ZvMessage::HasInt8(const char* name, int32 index) const
{
	return _HasData(name, ZV_INT8_TYPE, index);
}

// int16

bool ZvMessage::AddInt16(const char* name, int16 value)
{
	return AddValue(this, name, value);
}

bool ZvMessage::FindInt16(const char* name, int32 index, int16* value) const
{
	return FindValue<int16>(this, name, index, value);
}

bool ZvMessage::FindInt16(const char* name, int16* value) const
{
	return FindValue<int16>(this, name, 0, value);
}

bool ZvMessage::ReplaceInt16(const char* name, int32 index, int16 value)
{
	return ReplaceValue(this, name, index, value);
}

bool ZvMessage::ReplaceInt16(const char* name, int16 value)
{
	return ReplaceValue(this, name, 0, value);
}

bool ZvMessage::HasInt16(const char* name, int32 index) const
{
	return _HasData(name, ZV_INT16_TYPE, index);
}

// int32

bool ZvMessage::AddInt32(const char* name, int32 value)
{
	return AddValue(this, name, value);
}

bool ZvMessage::FindInt32(const char* name, int32 index, int32* value) const
{
	return FindValue<int32>(this, name, index, value);
}

bool ZvMessage::FindInt32(const char* name, int32* value) const
{
	return FindValue<int32>(this, name, 0, value);
}

bool ZvMessage::ReplaceInt32(const char* name, int32 index, int32 value)
{
	return ReplaceValue(this, name, index, value);
}

bool ZvMessage::ReplaceInt32(const char* name, int32 value)
{
	return ReplaceValue(this, name, 0, value);
}

bool ZvMessage::HasInt32(const char* name, int32 index) const
{
	return _HasData(name, ZV_INT32_TYPE, index);
}

// int64

bool ZvMessage::AddInt64(const char* name, int64 value)
{
	return AddValue(this, name, value);
}

bool ZvMessage::FindInt64(const char* name, int32 index, int64* value) const
{
	return FindValue<int64>(this, name, index, value);
}

bool ZvMessage::FindInt64(const char* name, int64* value) const
{
	return FindValue<int64>(this, name, 0, value);
}

bool ZvMessage::ReplaceInt64(const char* name, int32 index, int64 value)
{
	return ReplaceValue(this, name, index, value);
}

bool ZvMessage::ReplaceInt64(const char* name, int64 value)
{
	return ReplaceValue(this, name, 0, value);
}

bool ZvMessage::HasInt64(const char* name, int32 index) const
{
	return _HasData(name, ZV_INT64_TYPE, index);
}

// float

bool ZvMessage::AddFloat(const char* name, float value)
{
	return AddValue(this, name, value);
}

bool ZvMessage::FindFloat(const char* name, int32 index, float* value) const
{
	return FindValue<float>(this, name, index, value);
}

bool ZvMessage::FindFloat(const char* name, float* value) const
{
	return FindValue<float>(this, name, 0, value);
}

bool ZvMessage::ReplaceFloat(const char* name, int32 index, float value)
{
	return ReplaceValue(this, name, index, value);
}

bool ZvMessage::ReplaceFloat(const char* name, float value)
{
	return ReplaceValue(this, name, 0, value);
}

bool ZvMessage::HasFloat(const char* name, int32 index) const
{
	return _HasData(name, ZV_FLOAT_TYPE, index);
}

// double

bool ZvMessage::AddDouble(const char* name, double value)
{
	return AddValue(this, name, value);
}

bool ZvMessage::FindDouble(const char* name, int32 index, double* value) const
{
	return FindValue<double>(this, name, index, value);
}

bool ZvMessage::FindDouble(const char* name, double* value) const
{
	return FindValue<double>(this, name, 0, value);
}

bool ZvMessage::ReplaceDouble(const char* name, int32 index, double value)
{
	return ReplaceValue(this, name, index, value);
}

bool ZvMessage::ReplaceDouble(const char* name, double value)
{
	return ReplaceValue(this, name, 0, value);
}

bool ZvMessage::HasDouble(const char* name, int32 index) const
{
	return _HasData(name, ZV_DOUBLE_TYPE, index);
}

// string

bool ZvMessage::AddString(const char* name, const char* string)
{
	if (string == nullptr)
		return false;
	return _AddData(name, ZV_STRING_TYPE, static_cast<int32>(strlen(string) + 1), string);
}

bool ZvMessage::FindString(const char* name, int32 index, const char** string) const
{
	ZvMessageItem* item;
	if (string == nullptr || !_FindData(name, ZV_STRING_TYPE, index, &item))
		return false;
	// Only a block that holds a terminator is handed out as a string.
	if (item->data == nullptr || item->size < 1 || memchr(item->data, 0, item->size) == nullptr)
		return false;
	*string = reinterpret_cast<const char*>(item->data);
	return true;
}

bool ZvMessage::FindString(const char* name, const char** string) const
{
	return FindString(name, 0, string);
}

bool ZvMessage::ReplaceString(const char* name, int32 index, const char* string)
{
	ZvMessageItem* item;
	if (string == nullptr || !_FindData(name, ZV_STRING_TYPE, index, &item))
		return false;
	const size_t length = strlen(string) + 1;
	ReplacePadded(item, static_cast<int32>(length), string, length);
	return true;
}

bool ZvMessage::ReplaceString(const char* name, const char* string)
{
	return ReplaceString(name, 0, string);
}

bool ZvMessage::HasString(const char* name, int32 index) const
{
	return _HasData(name, ZV_STRING_TYPE, index);
}

// pointer

bool ZvMessage::AddPointer(const char* name, const void* pointer)
{
	return AddValue(this, name, const_cast<void*>(pointer));
}

bool ZvMessage::FindPointer(const char* name, int32 index, void** pointer) const
{
	return FindValue<void*>(this, name, index, pointer);
}

bool ZvMessage::FindPointer(const char* name, void** pointer) const
{
	return FindValue<void*>(this, name, 0, pointer);
}

bool ZvMessage::ReplacePointer(const char* name, int32 index, const void* pointer)
{
	return ReplaceValue(this, name, index, const_cast<void*>(pointer));
}

bool ZvMessage::ReplacePointer(const char* name, const void* pointer)
{
	return ReplacePointer(name, 0, pointer);
}

bool ZvMessage::HasPointer(const char* name, int32 index) const
{
	return _HasData(name, ZV_POINTER_TYPE, index);
}

// colour

bool ZvMessage::AddColor(const char* name, const zv_color* color)
{
	return color != nullptr && AddValue(this, name, *color);
}

bool ZvMessage::FindColor(const char* name, int32 index, zv_color* color) const
{
	return FindValue<zv_color>(this, name, index, color);
}

bool ZvMessage::FindColor(const char* name, zv_color* color) const
{
	return FindValue<zv_color>(this, name, 0, color);
}

bool ZvMessage::ReplaceColor(const char* name, int32 index, const zv_color* color)
{
	return color != nullptr && ReplaceValue(this, name, index, *color);
}

bool ZvMessage::ReplaceColor(const char* name, const zv_color* color)
{
	return ReplaceColor(name, 0, color);
}

bool ZvMessage::HasColor(const char* name, int32 index) const
{
	return _HasData(name, ZV_COLOR_TYPE, index);
}

// message

bool ZvMessage::AddMessage(const char* name, const ZvMessage* message)
{
	if (message == nullptr)
		return false;
	const int32 size = message->FlattenedSize();
	std::vector<uint8> flat(size);
	if (!message->Flatten(flat.data()))
		return false;
	return _AddData(name, ZV_MESSAGE_TYPE, size, flat.data());
}

bool ZvMessage::FindMessage(const char* name, int32 index, ZvMessage* message) const
{
	ZvMessageItem* item;
	if (message == nullptr || !_FindData(name, ZV_MESSAGE_TYPE, index, &item))
		return false;
	// The bounded reader: a block stored through the generic operations is
	// not trusted to be a well-formed message.
	const size_t size = item->data != nullptr ? item->size : 0;
	if (message != this)
		return message->Unflatten(item->data, size);
	// Reading a message into itself: the block is rewritten as it is read,
	// so it is read from a copy.
	const std::vector<uint8> copy(item->data, item->data + size);
	return message->Unflatten(copy.data(), copy.size());
}

bool ZvMessage::FindMessage(const char* name, ZvMessage* message) const
{
	return FindMessage(name, 0, message);
}

bool ZvMessage::ReplaceMessage(const char* name, int32 index, const ZvMessage* message)
{
	if (message == nullptr || name == nullptr)
		return false;
	const int32 size = message->FlattenedSize();
	if (size < 1)
		return false;
	ZvMessageItem* item;
	if (!_FindData(name, ZV_MESSAGE_TYPE, index, &item))
		return false;
	std::vector<uint8> flat(size);
	if (!message->Flatten(flat.data()))
		return false;
	ReplacePadded(item, size, flat.data(), flat.size());
	return true;
}

bool ZvMessage::ReplaceMessage(const char* name, const ZvMessage* message)
{
	return ReplaceMessage(name, 0, message);
}

bool ZvMessage::HasMessage(const char* name, int32 index) const
{
	return _HasData(name, ZV_MESSAGE_TYPE, index);
}

// rectangle

bool ZvMessage::AddRect(const char* name, ZvRect<double> rect)
{
	return AddShape(this, name, rect);
}

bool ZvMessage::AddRect(const char* name, ZvRect<float> rect)
{
	return AddShape(this, name, rect);
}

bool ZvMessage::AddRect(const char* name, ZvRect<int32> rect)
{
	return AddShape(this, name, rect);
}

bool ZvMessage::AddRect(const char* name, ZvRect<int16> rect)
{
	return AddShape(this, name, rect);
}

bool ZvMessage::FindRect(const char* name, int32 index, ZvRect<double>* rect) const
{
	return FindShape(this, name, index, rect);
}

bool ZvMessage::FindRect(const char* name, ZvRect<double>* rect) const
{
	return FindShape(this, name, 0, rect);
}

bool ZvMessage::FindRect(const char* name, int32 index, ZvRect<float>* rect) const
{
	return FindShape(this, name, index, rect);
}

bool ZvMessage::FindRect(const char* name, ZvRect<float>* rect) const
{
	return FindShape(this, name, 0, rect);
}

bool ZvMessage::FindRect(const char* name, int32 index, ZvRect<int32>* rect) const
{
	return FindShape(this, name, index, rect);
}

bool ZvMessage::FindRect(const char* name, ZvRect<int32>* rect) const
{
	return FindShape(this, name, 0, rect);
}

bool ZvMessage::FindRect(const char* name, int32 index, ZvRect<int16>* rect) const
{
	return FindShape(this, name, index, rect);
}

bool ZvMessage::FindRect(const char* name, ZvRect<int16>* rect) const
{
	return FindShape(this, name, 0, rect);
}

bool ZvMessage::ReplaceRect(const char* name, int32 index, ZvRect<double> rect)
{
	return ReplaceShape(this, name, index, rect);
}

bool ZvMessage::ReplaceRect(const char* name, ZvRect<double> rect)
{
	return ReplaceShape(this, name, 0, rect);
}

bool ZvMessage::ReplaceRect(const char* name, int32 index, ZvRect<float> rect)
{
	return ReplaceShape(this, name, index, rect);
}

bool ZvMessage::ReplaceRect(const char* name, ZvRect<float> rect)
{
	return ReplaceShape(this, name, 0, rect);
}

bool ZvMessage::ReplaceRect(const char* name, int32 index, ZvRect<int32> rect)
{
	return ReplaceShape(this, name, index, rect);
}

bool ZvMessage::ReplaceRect(const char* name, ZvRect<int32> rect)
{
	return ReplaceShape(this, name, 0, rect);
}

bool ZvMessage::ReplaceRect(const char* name, int32 index, ZvRect<int16> rect)
{
	return ReplaceShape(this, name, index, rect);
}

bool ZvMessage::ReplaceRect(const char* name, ZvRect<int16> rect)
{
	return ReplaceShape(this, name, 0, rect);
}

bool ZvMessage::HasRect(const char* name, int32 index) const
{
	return _HasData(name, ZV_RECT_TYPE, index);
}

// point

bool ZvMessage::AddPoint(const char* name, ZvPoint<double> point)
{
	return AddShape(this, name, point);
}

bool ZvMessage::AddPoint(const char* name, ZvPoint<float> point)
{
	return AddShape(this, name, point);
}

bool ZvMessage::AddPoint(const char* name, ZvPoint<int32> point)
{
	return AddShape(this, name, point);
}

bool ZvMessage::AddPoint(const char* name, ZvPoint<int16> point)
{
	return AddShape(this, name, point);
}

bool ZvMessage::FindPoint(const char* name, int32 index, ZvPoint<double>* point) const
{
	return FindShape(this, name, index, point);
}

bool ZvMessage::FindPoint(const char* name, ZvPoint<double>* point) const
{
	return FindShape(this, name, 0, point);
}

bool ZvMessage::FindPoint(const char* name, int32 index, ZvPoint<float>* point) const
{
	return FindShape(this, name, index, point);
}

bool ZvMessage::FindPoint(const char* name, ZvPoint<float>* point) const
{
	return FindShape(this, name, 0, point);
}

bool ZvMessage::FindPoint(const char* name, int32 index, ZvPoint<int32>* point) const
{
	return FindShape(this, name, index, point);
}

bool ZvMessage::FindPoint(const char* name, ZvPoint<int32>* point) const
{
	return FindShape(this, name, 0, point);
}

bool ZvMessage::FindPoint(const char* name, int32 index, ZvPoint<int16>* point) const
{
	return FindShape(this, name, index, point);
}

bool ZvMessage::FindPoint(const char* name, ZvPoint<int16>* point) const
{
	return FindShape(this, name, 0, point);
}

bool ZvMessage::ReplacePoint(const char* name, int32 index, ZvPoint<double> point)
{
	return ReplaceShape(this, name, index, point);
}

bool ZvMessage::ReplacePoint(const char* name, ZvPoint<double> point)
{
	return ReplaceShape(this, name, 0, point);
}

bool ZvMessage::ReplacePoint(const char* name, int32 index, ZvPoint<float> point)
{
	return ReplaceShape(this, name, index, point);
}

bool ZvMessage::ReplacePoint(const char* name, ZvPoint<float> point)
{
	return ReplaceShape(this, name, 0, point);
}

bool ZvMessage::ReplacePoint(const char* name, int32 index, ZvPoint<int32> point)
{
	return ReplaceShape(this, name, index, point);
}

bool ZvMessage::ReplacePoint(const char* name, ZvPoint<int32> point)
{
	return ReplaceShape(this, name, 0, point);
}

bool ZvMessage::ReplacePoint(const char* name, int32 index, ZvPoint<int16> point)
{
	return ReplaceShape(this, name, index, point);
}

bool ZvMessage::ReplacePoint(const char* name, ZvPoint<int16> point)
{
	return ReplaceShape(this, name, 0, point);
}

bool ZvMessage::HasPoint(const char* name, int32 index) const
{
	return _HasData(name, ZV_POINT_TYPE, index);
}
