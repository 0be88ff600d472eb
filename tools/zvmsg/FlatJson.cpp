// A message as a JSON document and back.
#include "FlatJson.h"

#include "messaging/FlatWalk.h"

#include <ZvTypeCodes.h>

#include <cmath>
#include <cstring>
#include <vector>

namespace zvkit::internal {

namespace {

using Bytes = std::vector<uint8>;

bool IsValidUtf8(const uint8* text, size_t length)
{
	size_t i = 0;
	while (i < length) {
		const uint8 lead = text[i];
		size_t extra;
		uint32 code;
		if (lead < 0x80) {
			i++;
			continue;
		} else if ((lead & 0xE0) == 0xC0) {
			extra = 1;
			code = lead & 0x1F;
		} else if ((lead & 0xF0) == 0xE0) {
			extra = 2;
			code = lead & 0x0F;
		} else if ((lead & 0xF8) == 0xF0) {
			extra = 3;
			code = lead & 0x07;
		} else {
			return false;
		}
		if (length - i <= extra)
			return false;
		for (size_t k = 1; k <= extra; k++) {
			if ((text[i + k] & 0xC0) != 0x80)
				return false;
			code = code << 6 | (text[i + k] & 0x3F);
		}
		// Overlong forms, surrogates and values past the last code point.
		const uint32 smallest[] = {0, 0x80, 0x800, 0x10000};
		if (code < smallest[extra] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF))
			return false;
		i += extra + 1;
	}
	return true;
}

std::string ToHex(const uint8* data, size_t length)
{
	static const char kDigits[] = "0123456789abcdef";
	std::string text;
	text.reserve(length * 2);
	for (size_t i = 0; i < length; i++) {
		text.push_back(kDigits[data[i] >> 4]);
		text.push_back(kDigits[data[i] & 0x0F]);
	}
	return text;
}

bool FromHex(const std::string& text, Bytes* out)
{
	if (text.size() % 2 != 0)
		return false;
	out->clear();
	for (size_t i = 0; i < text.size(); i += 2) {
		int value = 0;
		for (size_t k = 0; k < 2; k++) {
			const char c = text[i + k];
			int digit;
			if (c >= '0' && c <= '9')
				digit = c - '0';
			else if (c >= 'a' && c <= 'f')
				digit = c - 'a' + 10;
			else if (c >= 'A' && c <= 'F')
				digit = c - 'A' + 10;
			else
				return false;
			value = value * 16 + digit;
		}
		out->push_back(static_cast<uint8>(value));
	}
	return true;
}

bool IsHost(zv_byte_order order)
{
	return order == ZV_HOST_ENDIAN || order == ZV_HostByteOrder();
}

Bytes ItemBytes(const ZvMessageItem* item)
{
	if (item->data == nullptr || item->size <= 0)
		return Bytes();
	return Bytes(item->data, item->data + item->size);
}

Bytes FlatOf(const ZvMessage& message)
{
	Bytes bytes(message.FlattenedSize());
	int32 written = 0;
	message.Flatten(bytes.data(), &written);
	bytes.resize(written);
	return bytes;
}

template <typename T> T Load(const Bytes& bytes, size_t at = 0)
{
	T value;
	memcpy(&value, bytes.data() + at, sizeof(T));
	return value;
}

template <typename T> void Store(Bytes* bytes, T value)
{
	const size_t at = bytes->size();
	bytes->resize(at + sizeof(T));
	memcpy(bytes->data() + at, &value, sizeof(T));
}

// The items of a message in order, through a copy (a message keeps its item
// list to itself and its subclasses).
class ItemView : public ZvMessage
{
public:
	explicit ItemView(const ZvMessage& message) : ZvMessage(message) {}
	int32 Count() const { return items.CountItems(); }
	const ZvMessageItem* At(int32 index) const { return items.ItemAt(index); }
};

class Converter
{
public:
	explicit Converter(zv_byte_order order) : fOrder(order) {}

	Json Message(const ZvMessage& message, bool outermost);
	bool Build(const Json& document, const std::string& path, ZvMessage* message);

	std::string error;

private:
	Json Field(const ZvMessageItem* item);
	// The typed form of an item's value: key "value" or "message".
	bool Typed(const ZvMessageItem* item, const char** key, Json* value);
	// The bytes (in host order) a field's value stands for.
	bool ValueBytes(type_code type, const Json& field, const std::string& path, Bytes* out);
	bool Fail(const std::string& path, const std::string& problem)
	{
		error = path + ": " + problem;
		return false;
	}
	bool Integer(const Json& value, int64 low, uint64 high, const std::string& path, uint64* bits);
	bool Number(const Json& value, const std::string& path, double* number);

	zv_byte_order fOrder;
};

Json Converter::Message(const ZvMessage& message, bool outermost)
{
	Json document;
	if (outermost)
		document["byte_order"] = fOrder == ZV_BIG_ENDIAN ? "big" : "little";
	const Bytes flat = FlatOf(message);
	char code[5];
	document["what"] = message.what;
	document["what_code"] = ZV_TypeCodeString(message.what, code);
	document["flags"] = Load<uint32>(flat, 4);
	Json fields = Json::array();
	const ItemView view(message);
	for (int32 i = 0; i < view.Count(); i++)
		fields.push_back(Field(view.At(i)));
	document["fields"] = fields;
	return document;
}

Json Converter::Field(const ZvMessageItem* item)
{
	Json field;
	const size_t nameLength = strlen(item->name);
	if (IsValidUtf8(reinterpret_cast<const uint8*>(item->name), nameLength))
		field["name"] = item->name;
	else
		field["name_hex"] = ToHex(reinterpret_cast<const uint8*>(item->name), nameLength);
	char code[5];
	field["type"] = ZV_TypeCodeString(item->type, code);
	field["type_code"] = item->type;
	field["size"] = item->size;

	const Bytes bytes = ItemBytes(item);
	const char* key;
	Json value;
	if (Typed(item, &key, &value)) {
		Json trial;
		trial["size"] = item->size;
		trial[key] = value;
		Bytes back;
		if (ValueBytes(item->type, trial, "", &back) && back == bytes) {
			field[key] = value;
			return field;
		}
	}
	Bytes ordered = bytes;
	if (!IsHost(fOrder) && !ordered.empty())
		SwapFlatValue(item->type, ordered.data(), ordered.size(), false, nullptr);
	field["hex"] = ToHex(ordered.data(), ordered.size());
	return field;
}

bool Converter::Typed(const ZvMessageItem* item, const char** key, Json* value)
{
	const Bytes bytes = ItemBytes(item);
	const size_t size = bytes.size();
	*key = "value";
	switch (item->type) {
	case ZV_BOOL_TYPE:
		if (size != 1 || bytes[0] > 1)
			return false;
		*value = bytes[0] == 1;
		return true;
	case ZV_INT8_TYPE:
		if (size != 1)
			return false;
		*value = static_cast<int8>(bytes[0]);
		return true;
	case ZV_INT16_TYPE:
		if (size != 2)
			return false;
		*value = Load<int16>(bytes);
		return true;
	case ZV_INT32_TYPE:
		if (size != 4)
			return false;
		*value = Load<int32>(bytes);
		return true;
	case ZV_INT64_TYPE:
		if (size != 8)
			return false;
		*value = Load<int64>(bytes);
		return true;
	case ZV_FLOAT_TYPE:
		if (size != 4 || !std::isfinite(Load<float>(bytes)))
			return false;
		*value = static_cast<double>(Load<float>(bytes));
		return true;
	case ZV_DOUBLE_TYPE:
		if (size != 8 || !std::isfinite(Load<double>(bytes)))
			return false;
		*value = Load<double>(bytes);
		return true;
	case ZV_STRING_TYPE:
		if (size == 0 || bytes[size - 1] != 0 || memchr(bytes.data(), 0, size - 1) != nullptr ||
		    !IsValidUtf8(bytes.data(), size - 1)) {
			return false;
		}
		*value = reinterpret_cast<const char*>(bytes.data());
		return true;
	case ZV_POINTER_TYPE:
		if (size == 4)
			*value = Load<uint32>(bytes);
		else if (size == 8)
			*value = Load<uint64>(bytes);
		else
			return false;
		return true;
	case ZV_COLOR_TYPE: {
		if (size != 8)
			return false;
		const char* const channels[] = {"r", "g", "b", "a", "c", "m", "y", "k"};
		Json color;
		for (size_t i = 0; i < 8; i++)
			color[channels[i]] = bytes[i];
		*value = color;
		return true;
	}
	case ZV_RECT_TYPE:
	case ZV_POINT_TYPE: {
		const bool rect = item->type == ZV_RECT_TYPE;
		if (size != (rect ? 32u : 16u))
			return false;
		const char* const rectNames[] = {"left", "top", "right", "bottom"};
		const char* const pointNames[] = {"x", "y"};
		Json shape;
		for (size_t i = 0; i < size / 8; i++) {
			const double number = Load<double>(bytes, i * 8);
			if (!std::isfinite(number))
				return false;
			shape[rect ? rectNames[i] : pointNames[i]] = number;
		}
		*value = shape;
		return true;
	}
	case ZV_MESSAGE_TYPE: {
		ZvMessage nested(0);
		if (size == 0 || !nested.Unflatten(bytes.data(), size))
			return false;
		*key = "message";
		*value = Message(nested, false);
		return true;
	}
	default:
		return false;
	}
}

bool Converter::Integer(const Json& value, int64 low, uint64 high, const std::string& path,
                        uint64* bits)
{
	if (value.is_number_unsigned()) {
		const uint64 number = value.get<uint64>();
		if (number > high)
			return Fail(path, "integer out of range");
		*bits = number;
		return true;
	}
	if (value.is_number_integer()) {
		const int64 number = value.get<int64>();
		if (number < low || (number > 0 && static_cast<uint64>(number) > high))
			return Fail(path, "integer out of range");
		*bits = static_cast<uint64>(number);
		return true;
	}
	return Fail(path, "expected an integer");
}

bool Converter::Number(const Json& value, const std::string& path, double* number)
{
	if (!value.is_number())
		return Fail(path, "expected a number");
	*number = value.get<double>();
	return true;
}

bool Converter::ValueBytes(type_code type, const Json& field, const std::string& path, Bytes* out)
{
	out->clear();
	const int given = field.contains("value") + field.contains("message") + field.contains("hex");
	if (given != 1)
		return Fail(path, "a field needs exactly one of \"value\", \"message\" and \"hex\"");

	if (field.contains("hex")) {
		const Json& hex = field["hex"];
		if (!hex.is_string() || !FromHex(hex.get<std::string>(), out))
			return Fail(path + ".hex", "expected a string of hexadecimal digit pairs");
		FlatProblem problem;
		if (!IsHost(fOrder) && !out->empty() &&
		    !SwapFlatValue(type, out->data(), out->size(), true, &problem)) {
			return Fail(path + ".hex", std::string("nested message: ") + problem.reason);
		}
		return true;
	}
	if (field.contains("message")) {
		if (type != ZV_MESSAGE_TYPE)
			return Fail(path, "\"message\" is only for type BMSG");
		ZvMessage nested(0);
		if (!Build(field["message"], path + ".message", &nested))
			return false;
		*out = FlatOf(nested);
		return true;
	}

	const Json& value = field["value"];
	const std::string at = path + ".value";
	uint64 bits = 0;
	double number = 0;
	switch (type) {
	case ZV_BOOL_TYPE:
		if (!value.is_boolean())
			return Fail(at, "expected true or false");
		out->push_back(value.get<bool>() ? 1 : 0);
		return true;
	case ZV_INT8_TYPE:
		if (!Integer(value, INT8_MIN, INT8_MAX, at, &bits))
			return false;
		Store(out, static_cast<int8>(bits));
		return true;
	case ZV_INT16_TYPE:
		if (!Integer(value, INT16_MIN, INT16_MAX, at, &bits))
			return false;
		Store(out, static_cast<int16>(bits));
		return true;
	case ZV_INT32_TYPE:
		if (!Integer(value, INT32_MIN, INT32_MAX, at, &bits))
			return false;
		Store(out, static_cast<int32>(bits));
		return true;
	case ZV_INT64_TYPE:
		if (!Integer(value, INT64_MIN, INT64_MAX, at, &bits))
			return false;
		Store(out, static_cast<int64>(bits));
		return true;
	case ZV_FLOAT_TYPE:
		if (!Number(value, at, &number))
			return false;
		Store(out, static_cast<float>(number));
		return true;
	case ZV_DOUBLE_TYPE:
		if (!Number(value, at, &number))
			return false;
		Store(out, number);
		return true;
	case ZV_STRING_TYPE: {
		if (!value.is_string())
			return Fail(at, "expected a string");
		const std::string text = value.get<std::string>();
		if (text.find('\0') != std::string::npos)
			return Fail(at, "a string cannot hold a zero byte (use \"hex\")");
		out->assign(text.begin(), text.end());
		out->push_back(0);
		return true;
	}
	case ZV_POINTER_TYPE:
		// A pointer keeps the width it was written with: 4 bytes when it
		// fits, unless the field's "size" says 8.
		if (!Integer(value, 0, UINT64_MAX, at, &bits))
			return false;
		if (bits <= UINT32_MAX && !(field.contains("size") && field["size"] == 8))
			Store(out, static_cast<uint32>(bits));
		else
			Store(out, bits);
		return true;
	case ZV_COLOR_TYPE: {
		const char* const channels[] = {"r", "g", "b", "a", "c", "m", "y", "k"};
		if (!value.is_object())
			return Fail(at, "expected an object with r, g, b, a, c, m, y, k");
		for (const char* channel : channels) {
			if (!value.contains(channel))
				return Fail(at, std::string("missing channel ") + channel);
			if (!Integer(value[channel], 0, 255, at + "." + channel, &bits))
				return false;
			out->push_back(static_cast<uint8>(bits));
		}
		return true;
	}
	case ZV_RECT_TYPE:
	case ZV_POINT_TYPE: {
		const char* const rectNames[] = {"left", "top", "right", "bottom"};
		const char* const pointNames[] = {"x", "y"};
		const bool rect = type == ZV_RECT_TYPE;
		if (!value.is_object())
			return Fail(at, rect ? "expected an object with left, top, right, bottom"
			                     : "expected an object with x, y");
		for (size_t i = 0; i < (rect ? 4u : 2u); i++) {
			const char* name = rect ? rectNames[i] : pointNames[i];
			if (!value.contains(name))
				return Fail(at, std::string("missing ") + name);
			if (!Number(value[name], at + "." + name, &number))
				return false;
			Store(out, number);
		}
		return true;
	}
	default:
		return Fail(at, "this type has no typed value (use \"hex\")");
	}
}

bool Converter::Build(const Json& document, const std::string& path, ZvMessage* message)
{
	if (!document.is_object())
		return Fail(path, "expected an object");
	uint64 bits = 0;
	if (!document.contains("what"))
		return Fail(path, "missing \"what\"");
	if (document["what"].is_string()) {
		const std::string code = document["what"].get<std::string>();
		if (code.size() != 4)
			return Fail(path + ".what", "a code as text has four characters");
		message->what = static_cast<uint32>(static_cast<uint8>(code[0])) << 24 |
		                static_cast<uint32>(static_cast<uint8>(code[1])) << 16 |
		                static_cast<uint32>(static_cast<uint8>(code[2])) << 8 |
		                static_cast<uint8>(code[3]);
	} else {
		if (!Integer(document["what"], 0, UINT32_MAX, path + ".what", &bits))
			return false;
		message->what = static_cast<uint32>(bits);
	}
	bits = 0;
	if (document.contains("flags") &&
	    !Integer(document["flags"], 0, UINT32_MAX, path + ".flags", &bits))
		return false;
	message->SetFlags(static_cast<uint32>(bits));

	if (!document.contains("fields"))
		return true;
	const Json& fields = document["fields"];
	if (!fields.is_array())
		return Fail(path + ".fields", "expected an array");
	for (size_t i = 0; i < fields.size(); i++) {
		const std::string at = path + ".fields[" + std::to_string(i) + "]";
		const Json& field = fields[i];
		if (!field.is_object())
			return Fail(at, "expected an object");
		std::string name;
		if (field.contains("name") && field["name"].is_string()) {
			name = field["name"].get<std::string>();
		} else if (field.contains("name_hex") && field["name_hex"].is_string()) {
			Bytes raw;
			if (!FromHex(field["name_hex"].get<std::string>(), &raw))
				return Fail(at + ".name_hex", "expected hexadecimal digit pairs");
			name.assign(raw.begin(), raw.end());
		} else {
			return Fail(at, "missing \"name\"");
		}
		if (name.size() > 63 || name.find('\0') != std::string::npos)
			return Fail(at + ".name", "a name has at most 63 bytes and no zero byte");

		type_code type = 0;
		if (field.contains("type_code")) {
			if (!Integer(field["type_code"], 0, UINT32_MAX, at + ".type_code", &bits))
				return false;
			type = static_cast<type_code>(bits);
		} else if (field.contains("type") && field["type"].is_string() &&
		           field["type"].get<std::string>().size() == 4) {
			const std::string code = field["type"].get<std::string>();
			for (char c : code)
				type = type << 8 | static_cast<uint8>(c);
		} else {
			return Fail(at, "missing \"type_code\" (or a four-character \"type\")");
		}

		Bytes bytes;
		if (!ValueBytes(type, field, at, &bytes))
			return false;
		message->_AddData(name.c_str(), type, static_cast<int32>(bytes.size()),
		                  bytes.empty() ? "" : static_cast<const void*>(bytes.data()));
	}
	return true;
}

} // namespace

Json MessageToJson(const ZvMessage& message, zv_byte_order order)
{
	if (order == ZV_HOST_ENDIAN)
		order = ZV_HostByteOrder();
	Converter converter(order);
	return converter.Message(message, true);
}

bool JsonToMessage(const Json& document, ZvMessage* message, zv_byte_order* order,
                   std::string* error)
{
	message->MakeEmpty();
	zv_byte_order documentOrder = ZV_HostByteOrder();
	if (document.is_object() && document.contains("byte_order")) {
		const Json& named = document["byte_order"];
		if (named == "big") {
			documentOrder = ZV_BIG_ENDIAN;
		} else if (named == "little") {
			documentOrder = ZV_LITTLE_ENDIAN;
		} else {
			*error = "byte_order: expected \"big\" or \"little\"";
			return false;
		}
	}
	Converter converter(documentOrder);
	if (!converter.Build(document, "$", message)) {
		*error = converter.error;
		message->MakeEmpty();
		return false;
	}
	*order = documentOrder;
	return true;
}

} // namespace zvkit::internal
