// Message.cpp: BMessage, its fields, their flattened form and replies.

#include <Message.h>

#include <Handler.h>
#include <Looper.h>
#include <Messenger.h>

#include "AppPrivate.h"

#include <chrono>
#include <cstring>
#include <limits>
#include <string>
#include <unordered_set>
#include <vector>

using BPrivate::MessageAccess;
using BPrivate::MessageDelivery;

namespace {

struct Field
{
	std::string name;
	type_code type;
	bool fixedSize;
	size_t itemSize;
	// One buffer per item: adding items never moves the bytes of the
	// others, so pointers handed out by FindData stay valid.
	std::vector<std::vector<uint8>> items;
};

// Marks the start of a flattened message ('PMSG').
const uint32 kFlatMagic = 0x504D5347;

} // namespace

struct BMessage::Fields
{
	std::vector<Field> list;

	Field* Find(const char* name)
	{
		for (Field& field : list) {
			if (field.name == name)
				return &field;
		}
		return nullptr;
	}

	const Field* Find(const char* name) const { return const_cast<Fields*>(this)->Find(name); }
};

struct BMessage::Delivery : MessageDelivery
{
};

// #pragma mark - Field lookup shared by every typed member

namespace {

// The item `index` of field `name` of type `type` (B_ANY_TYPE matches every
// type), or the status that explains why there is none.
template <typename FieldT, typename FieldsT>
status_t LocateItem(FieldsT* fields, const char* name, type_code type, int32 index,
                    FieldT** fieldOut)
{
	if (name == nullptr)
		return B_BAD_VALUE;
	FieldT* field = fields->Find(name);
	if (field == nullptr)
		return B_NAME_NOT_FOUND;
	if (type != B_ANY_TYPE && field->type != type)
		return B_BAD_TYPE;
	if (index < 0 || static_cast<size_t>(index) >= field->items.size())
		return B_BAD_INDEX;
	*fieldOut = field;
	return B_OK;
}

// Sizes are kept within int32 so that the flattened form can record them.
bool SizeIsStorable(ssize_t numBytes)
{
	return numBytes > 0 && static_cast<uint64>(numBytes) <= std::numeric_limits<int32>::max();
}

} // namespace

// #pragma mark - Construction

BMessage::BMessage() : what(0), fFields(new Fields), fDelivery(nullptr) {}

BMessage::BMessage(uint32 command) : what(command), fFields(new Fields), fDelivery(nullptr) {}

BMessage::BMessage(const BMessage& other)
    : what(other.what), fFields(new Fields(*other.fFields)), fDelivery(nullptr)
{
}

BMessage::~BMessage()
{
	// A sender still waiting for the answer to this message learns that
	// there will be none.
	if (fDelivery != nullptr && fDelivery->waiter && !fDelivery->replied)
		SendReply(B_NO_REPLY);
	delete fDelivery;
	delete fFields;
}

BMessage& BMessage::operator=(const BMessage& other)
{
	if (this != &other) {
		what = other.what;
		*fFields = *other.fFields;
	}
	return *this;
}

// #pragma mark - Information

status_t BMessage::GetInfo(type_code typeRequested, int32 index, char** nameFound,
                           type_code* typeFound, int32* countFound) const
{
	if (index < 0 || static_cast<size_t>(index) >= fFields->list.size())
		return B_BAD_INDEX;
	int32 seen = 0;
	bool typePresent = false;
	for (const Field& field : fFields->list) {
		if (typeRequested != B_ANY_TYPE && field.type != typeRequested)
			continue;
		typePresent = true;
		if (seen++ != index)
			continue;
		if (nameFound != nullptr)
			*nameFound = const_cast<char*>(field.name.c_str());
		if (typeFound != nullptr)
			*typeFound = field.type;
		if (countFound != nullptr)
			*countFound = static_cast<int32>(field.items.size());
		return B_OK;
	}
	return typePresent ? B_BAD_INDEX : B_BAD_TYPE;
}

status_t BMessage::GetInfo(const char* name, type_code* typeFound, int32* countFound) const
{
	if (name == nullptr)
		return B_BAD_VALUE;
	const Field* field = fFields->Find(name);
	if (field == nullptr)
		return B_NAME_NOT_FOUND;
	if (typeFound != nullptr)
		*typeFound = field->type;
	if (countFound != nullptr)
		*countFound = static_cast<int32>(field->items.size());
	return B_OK;
}

status_t BMessage::GetInfo(const char* name, type_code* typeFound, bool* fixedSize) const
{
	if (name == nullptr)
		return B_BAD_VALUE;
	const Field* field = fFields->Find(name);
	if (field == nullptr)
		return B_NAME_NOT_FOUND;
	if (typeFound != nullptr)
		*typeFound = field->type;
	if (fixedSize != nullptr)
		*fixedSize = field->fixedSize;
	return B_OK;
}

int32 BMessage::CountNames(type_code type) const
{
	int32 count = 0;
	for (const Field& field : fFields->list) {
		if (type == B_ANY_TYPE || field.type == type)
			count++;
	}
	return count;
}

bool BMessage::IsEmpty() const
{
	return fFields->list.empty();
}

// #pragma mark - Removing

status_t BMessage::RemoveName(const char* name)
{
	if (name == nullptr)
		return B_BAD_VALUE;
	for (auto it = fFields->list.begin(); it != fFields->list.end(); ++it) {
		if (it->name == name) {
			fFields->list.erase(it);
			return B_OK;
		}
	}
	return B_NAME_NOT_FOUND;
}

status_t BMessage::RemoveData(const char* name, int32 index)
{
	Field* field = nullptr;
	status_t status = LocateItem(fFields, name, B_ANY_TYPE, index, &field);
	if (status != B_OK)
		return status;
	field->items.erase(field->items.begin() + index);
	if (field->items.empty())
		return RemoveName(name);
	return B_OK;
}

status_t BMessage::MakeEmpty()
{
	fFields->list.clear();
	return B_OK;
}

// #pragma mark - Raw data

status_t BMessage::AddData(const char* name, type_code type, const void* data, ssize_t numBytes,
                           bool isFixedSize, int32 count)
{
	if (name == nullptr || data == nullptr || type == B_ANY_TYPE || !SizeIsStorable(numBytes))
		return B_BAD_VALUE;
	Field* field = fFields->Find(name);
	if (field != nullptr) {
		if (field->type != type)
			return B_BAD_TYPE;
		if (field->fixedSize && field->itemSize != static_cast<size_t>(numBytes))
			return B_BAD_VALUE;
	} else {
		fFields->list.push_back(Field{name, type, isFixedSize, static_cast<size_t>(numBytes), {}});
		field = &fFields->list.back();
		if (count > 1)
			field->items.reserve(static_cast<size_t>(count));
	}
	const uint8* bytes = static_cast<const uint8*>(data);
	field->items.emplace_back(bytes, bytes + numBytes);
	return B_OK;
}

status_t BMessage::FindData(const char* name, type_code type, int32 index, const void** data,
                            ssize_t* numBytes) const
{
	if (data == nullptr)
		return B_BAD_VALUE;
	const Field* field = nullptr;
	status_t status = LocateItem(fFields, name, type, index, &field);
	if (status != B_OK)
		return status;
	const std::vector<uint8>& item = field->items[static_cast<size_t>(index)];
	*data = item.data();
	if (numBytes != nullptr)
		*numBytes = static_cast<ssize_t>(item.size());
	return B_OK;
}

status_t BMessage::FindData(const char* name, type_code type, const void** data,
                            ssize_t* numBytes) const
{
	return FindData(name, type, 0, data, numBytes);
}

status_t BMessage::ReplaceData(const char* name, type_code type, int32 index, const void* data,
                               ssize_t numBytes)
{
	if (data == nullptr || !SizeIsStorable(numBytes))
		return B_BAD_VALUE;
	Field* field = nullptr;
	status_t status = LocateItem(fFields, name, type, index, &field);
	if (status != B_OK)
		return status;
	if (field->fixedSize && field->itemSize != static_cast<size_t>(numBytes))
		return B_BAD_VALUE;
	const uint8* bytes = static_cast<const uint8*>(data);
	field->items[static_cast<size_t>(index)].assign(bytes, bytes + numBytes);
	return B_OK;
}

status_t BMessage::ReplaceData(const char* name, type_code type, const void* data, ssize_t numBytes)
{
	return ReplaceData(name, type, 0, data, numBytes);
}

bool BMessage::HasData(const char* name, type_code type, int32 index) const
{
	const Field* field = nullptr;
	return LocateItem(fFields, name, type, index, &field) == B_OK;
}

// #pragma mark - Typed fields

namespace {

// Fixed-size values of the typed families, stored by their bytes.
template <typename T>
status_t AddValue(BMessage* message, const char* name, type_code type, T value)
{
	return message->AddData(name, type, &value, sizeof(T), true);
}

template <typename T>
status_t FindValue(const BMessage* message, const char* name, type_code type, int32 index, T* value)
{
	if (value == nullptr)
		return B_BAD_VALUE;
	const void* data = nullptr;
	ssize_t size = 0;
	status_t status = message->FindData(name, type, index, &data, &size);
	if (status != B_OK)
		return status;
	if (size != static_cast<ssize_t>(sizeof(T)))
		return B_BAD_DATA;
	std::memcpy(value, data, sizeof(T));
	return B_OK;
}

template <typename T>
status_t ReplaceValue(BMessage* message, const char* name, type_code type, int32 index, T value)
{
	return message->ReplaceData(name, type, index, &value, sizeof(T));
}

ssize_t StringSize(const char* string)
{
	return static_cast<ssize_t>(std::strlen(string) + 1);
}

} // namespace

status_t BMessage::AddBool(const char* name, bool value)
{
	return AddValue(this, name, B_BOOL_TYPE, value);
}

status_t BMessage::AddInt8(const char* name, int8 value)
{
	return AddValue(this, name, B_INT8_TYPE, value);
}

status_t BMessage::AddInt16(const char* name, int16 value)
{
	return AddValue(this, name, B_INT16_TYPE, value);
}

status_t BMessage::AddInt32(const char* name, int32 value)
{
	return AddValue(this, name, B_INT32_TYPE, value);
}

status_t BMessage::AddInt64(const char* name, int64 value)
{
	return AddValue(this, name, B_INT64_TYPE, value);
}

status_t BMessage::AddFloat(const char* name, float value)
{
	return AddValue(this, name, B_FLOAT_TYPE, value);
}

status_t BMessage::AddDouble(const char* name, double value)
{
	return AddValue(this, name, B_DOUBLE_TYPE, value);
}

status_t BMessage::AddString(const char* name, const char* string)
{
	if (string == nullptr)
		return B_BAD_VALUE;
	return AddData(name, B_STRING_TYPE, string, StringSize(string), false);
}

status_t BMessage::AddPointer(const char* name, const void* pointer)
{
	return AddValue(this, name, B_POINTER_TYPE, pointer);
}

status_t BMessage::AddMessage(const char* name, const BMessage* message)
{
	if (message == nullptr)
		return B_BAD_VALUE;
	std::vector<uint8> flat;
	MessageAccess::Flatten(message, &flat);
	return AddData(name, B_MESSAGE_TYPE, flat.data(), static_cast<ssize_t>(flat.size()), false);
}

status_t BMessage::FindBool(const char* name, bool* value) const
{
	return FindValue(this, name, B_BOOL_TYPE, 0, value);
}

status_t BMessage::FindBool(const char* name, int32 index, bool* value) const
{
	return FindValue(this, name, B_BOOL_TYPE, index, value);
}

status_t BMessage::FindInt8(const char* name, int8* value) const
{
	return FindValue(this, name, B_INT8_TYPE, 0, value);
}

status_t BMessage::FindInt8(const char* name, int32 index, int8* value) const
{
	return FindValue(this, name, B_INT8_TYPE, index, value);
}

status_t BMessage::FindInt16(const char* name, int16* value) const
{
	return FindValue(this, name, B_INT16_TYPE, 0, value);
}

status_t BMessage::FindInt16(const char* name, int32 index, int16* value) const
{
	return FindValue(this, name, B_INT16_TYPE, index, value);
}

status_t BMessage::FindInt32(const char* name, int32* value) const
{
	return FindValue(this, name, B_INT32_TYPE, 0, value);
}

status_t BMessage::FindInt32(const char* name, int32 index, int32* value) const
{
	return FindValue(this, name, B_INT32_TYPE, index, value);
}

status_t BMessage::FindInt64(const char* name, int64* value) const
{
	return FindValue(this, name, B_INT64_TYPE, 0, value);
}

status_t BMessage::FindInt64(const char* name, int32 index, int64* value) const
{
	return FindValue(this, name, B_INT64_TYPE, index, value);
}

status_t BMessage::FindFloat(const char* name, float* value) const
{
	return FindValue(this, name, B_FLOAT_TYPE, 0, value);
}

status_t BMessage::FindFloat(const char* name, int32 index, float* value) const
{
	return FindValue(this, name, B_FLOAT_TYPE, index, value);
}

status_t BMessage::FindDouble(const char* name, double* value) const
{
	return FindValue(this, name, B_DOUBLE_TYPE, 0, value);
}

status_t BMessage::FindDouble(const char* name, int32 index, double* value) const
{
	return FindValue(this, name, B_DOUBLE_TYPE, index, value);
}

status_t BMessage::FindString(const char* name, const char** string) const
{
	return FindString(name, 0, string);
}

status_t BMessage::FindString(const char* name, int32 index, const char** string) const
{
	if (string == nullptr)
		return B_BAD_VALUE;
	const void* data = nullptr;
	ssize_t size = 0;
	status_t status = FindData(name, B_STRING_TYPE, index, &data, &size);
	if (status != B_OK)
		return status;
	// Raw data added under the string type need not be terminated; such an
	// item is not handed out as a string.
	if (static_cast<const char*>(data)[size - 1] != '\0')
		return B_BAD_DATA;
	*string = static_cast<const char*>(data);
	return B_OK;
}

status_t BMessage::FindPointer(const char* name, void** pointer) const
{
	return FindValue(this, name, B_POINTER_TYPE, 0, pointer);
}

status_t BMessage::FindPointer(const char* name, int32 index, void** pointer) const
{
	return FindValue(this, name, B_POINTER_TYPE, index, pointer);
}

status_t BMessage::FindMessage(const char* name, BMessage* message) const
{
	return FindMessage(name, 0, message);
}

status_t BMessage::FindMessage(const char* name, int32 index, BMessage* message) const
{
	if (message == nullptr)
		return B_BAD_VALUE;
	const void* data = nullptr;
	ssize_t size = 0;
	status_t status = FindData(name, B_MESSAGE_TYPE, index, &data, &size);
	if (status != B_OK)
		return status;
	if (!MessageAccess::Unflatten(message, static_cast<const uint8*>(data),
	                              static_cast<size_t>(size)))
		return B_BAD_DATA;
	return B_OK;
}

status_t BMessage::ReplaceBool(const char* name, bool value)
{
	return ReplaceValue(this, name, B_BOOL_TYPE, 0, value);
}

status_t BMessage::ReplaceBool(const char* name, int32 index, bool value)
{
	return ReplaceValue(this, name, B_BOOL_TYPE, index, value);
}

status_t BMessage::ReplaceInt8(const char* name, int8 value)
{
	return ReplaceValue(this, name, B_INT8_TYPE, 0, value);
}

status_t BMessage::ReplaceInt8(const char* name, int32 index, int8 value)
{
	return ReplaceValue(this, name, B_INT8_TYPE, index, value);
}

status_t BMessage::ReplaceInt16(const char* name, int16 value)
{
	return ReplaceValue(this, name, B_INT16_TYPE, 0, value);
}

status_t BMessage::ReplaceInt16(const char* name, int32 index, int16 value)
{
	return ReplaceValue(this, name, B_INT16_TYPE, index, value);
}

status_t BMessage::ReplaceInt32(const char* name, int32 value)
{
	return ReplaceValue(this, name, B_INT32_TYPE, 0, value);
}

status_t BMessage::ReplaceInt32(const char* name, int32 index, int32 value)
{
	return ReplaceValue(this, name, B_INT32_TYPE, index, value);
}

status_t BMessage::ReplaceInt64(const char* name, int64 value)
{
	return ReplaceValue(this, name, B_INT64_TYPE, 0, value);
}

status_t BMessage::ReplaceInt64(const char* name, int32 index, int64 value)
{
	return ReplaceValue(this, name, B_INT64_TYPE, index, value);
}

status_t BMessage::ReplaceFloat(const char* name, float value)
{
	return ReplaceValue(this, name, B_FLOAT_TYPE, 0, value);
}

status_t BMessage::ReplaceFloat(const char* name, int32 index, float value)
{
	return ReplaceValue(this, name, B_FLOAT_TYPE, index, value);
}

status_t BMessage::ReplaceDouble(const char* name, double value)
{
	return ReplaceValue(this, name, B_DOUBLE_TYPE, 0, value);
}

status_t BMessage::ReplaceDouble(const char* name, int32 index, double value)
{
	return ReplaceValue(this, name, B_DOUBLE_TYPE, index, value);
}

status_t BMessage::ReplaceString(const char* name, const char* string)
{
	return ReplaceString(name, 0, string);
}

status_t BMessage::ReplaceString(const char* name, int32 index, const char* string)
{
	if (string == nullptr)
		return B_BAD_VALUE;
	return ReplaceData(name, B_STRING_TYPE, index, string, StringSize(string));
}

status_t BMessage::ReplacePointer(const char* name, const void* pointer)
{
	return ReplaceValue(this, name, B_POINTER_TYPE, 0, pointer);
}

status_t BMessage::ReplacePointer(const char* name, int32 index, const void* pointer)
{
	return ReplaceValue(this, name, B_POINTER_TYPE, index, pointer);
}

status_t BMessage::ReplaceMessage(const char* name, const BMessage* message)
{
	return ReplaceMessage(name, 0, message);
}

status_t BMessage::ReplaceMessage(const char* name, int32 index, const BMessage* message)
{
	if (message == nullptr)
		return B_BAD_VALUE;
	std::vector<uint8> flat;
	MessageAccess::Flatten(message, &flat);
	return ReplaceData(name, B_MESSAGE_TYPE, index, flat.data(), static_cast<ssize_t>(flat.size()));
}

bool BMessage::HasBool(const char* name, int32 index) const
{
	return HasData(name, B_BOOL_TYPE, index);
}

bool BMessage::HasInt8(const char* name, int32 index) const
{
	return HasData(name, B_INT8_TYPE, index);
}

bool BMessage::HasInt16(const char* name, int32 index) const
{
	return HasData(name, B_INT16_TYPE, index);
}

bool BMessage::HasInt32(const char* name, int32 index) const
{
	return HasData(name, B_INT32_TYPE, index);
}

bool BMessage::HasInt64(const char* name, int32 index) const
{
	return HasData(name, B_INT64_TYPE, index);
}

bool BMessage::HasFloat(const char* name, int32 index) const
{
	return HasData(name, B_FLOAT_TYPE, index);
}

bool BMessage::HasDouble(const char* name, int32 index) const
{
	return HasData(name, B_DOUBLE_TYPE, index);
}

bool BMessage::HasString(const char* name, int32 index) const
{
	return HasData(name, B_STRING_TYPE, index);
}

bool BMessage::HasPointer(const char* name, int32 index) const
{
	return HasData(name, B_POINTER_TYPE, index);
}

bool BMessage::HasMessage(const char* name, int32 index) const
{
	return HasData(name, B_MESSAGE_TYPE, index);
}

// #pragma mark - Replies

status_t BMessage::SendReply(uint32 command, BHandler* replyTo)
{
	BMessage reply(command);
	return SendReply(&reply, replyTo);
}

status_t BMessage::SendReply(BMessage* reply, BHandler* replyTo, bigtime_t timeout)
{
	if (reply == nullptr)
		return B_BAD_VALUE;
	if (fDelivery == nullptr)
		return B_BAD_REPLY;
	if (fDelivery->replied)
		return B_DUPLICATE_REPLY;

	if (fDelivery->waiter) {
		// The waiting sender takes the answer out of the channel; the
		// channel outlives this message if the sender gave up waiting.
		BPrivate::ReplyChannel& channel = *fDelivery->waiter;
		std::unique_ptr<BMessage> copy(new BMessage(*reply));
		{
			std::lock_guard<std::mutex> lock(channel.lock);
			channel.reply = std::move(copy);
		}
		channel.answered.notify_all();
		fDelivery->replied = true;
		return B_OK;
	}
	if (fDelivery->replyLooper < 0)
		return B_BAD_REPLY;
	status_t status = BPrivate::DeliverTo(fDelivery->replyLooper, fDelivery->replyToken, reply,
	                                      replyTo, nullptr, timeout);
	if (status == B_OK)
		fDelivery->replied = true;
	return status;
}

bool BMessage::IsSourceWaiting() const
{
	return fDelivery != nullptr && fDelivery->waiter && !fDelivery->replied;
}

bool BMessage::WasDelivered() const
{
	return fDelivery != nullptr;
}

// #pragma mark - Kit-internal access

BMessage* MessageAccess::CopyForDelivery(const BMessage* message)
{
	BMessage* copy = new BMessage(*message);
	copy->fDelivery = new BMessage::Delivery;
	return copy;
}

MessageDelivery* MessageAccess::Delivery(BMessage* message)
{
	return message->fDelivery;
}

BMessage* MessageAccess::MakeQuitOrder()
{
	BMessage* order = new BMessage;
	order->fDelivery = new BMessage::Delivery;
	order->fDelivery->quitOrder = true;
	return order;
}

bool MessageAccess::IsQuitOrder(BMessage* message)
{
	return message->fDelivery != nullptr && message->fDelivery->quitOrder;
}

// Flattened form, host byte order:
//   uint32 magic, uint32 what, uint32 field count, then per field
//   uint32 type, uint8 fixed size, uint32 name length, the name's bytes,
//   uint32 item count, and per item uint32 size and the item's bytes.

namespace {

void PutUint32(std::vector<uint8>* out, uint32 value)
{
	const uint8* bytes = reinterpret_cast<const uint8*>(&value);
	out->insert(out->end(), bytes, bytes + sizeof(value));
}

class FlatReader
{
public:
	FlatReader(const uint8* data, size_t size) : fData(data), fLeft(size) {}

	bool Uint32(uint32* value) { return Bytes(value, sizeof(*value)); }

	bool Bytes(void* out, size_t size)
	{
		const uint8* bytes = Take(size);
		if (bytes == nullptr)
			return false;
		std::memcpy(out, bytes, size);
		return true;
	}

	// Pointer to the next `size` bytes, or null when fewer remain.
	const uint8* Take(size_t size)
	{
		if (size > fLeft)
			return nullptr;
		const uint8* bytes = fData;
		fData += size;
		fLeft -= size;
		return bytes;
	}

	size_t Left() const { return fLeft; }

private:
	const uint8* fData;
	size_t fLeft;
};

} // namespace

void MessageAccess::Flatten(const BMessage* message, std::vector<uint8>* out)
{
	out->clear();
	PutUint32(out, kFlatMagic);
	PutUint32(out, message->what);
	PutUint32(out, static_cast<uint32>(message->fFields->list.size()));
	for (const Field& field : message->fFields->list) {
		PutUint32(out, field.type);
		out->push_back(field.fixedSize ? 1 : 0);
		PutUint32(out, static_cast<uint32>(field.name.size()));
		out->insert(out->end(), field.name.begin(), field.name.end());
		PutUint32(out, static_cast<uint32>(field.items.size()));
		for (const std::vector<uint8>& item : field.items) {
			PutUint32(out, static_cast<uint32>(item.size()));
			out->insert(out->end(), item.begin(), item.end());
		}
	}
}

bool MessageAccess::Unflatten(BMessage* message, const uint8* data, size_t size)
{
	FlatReader reader(data, size);
	uint32 magic = 0;
	uint32 what = 0;
	uint32 fieldCount = 0;
	BMessage::Fields fields;
	std::unordered_set<std::string> names;
	bool ok = reader.Uint32(&magic) && magic == kFlatMagic && reader.Uint32(&what) &&
	          reader.Uint32(&fieldCount);
	for (uint32 i = 0; ok && i < fieldCount; i++) {
		Field field{};
		uint8 fixed = 0;
		uint32 nameLength = 0;
		uint32 itemCount = 0;
		ok = reader.Uint32(&field.type) && reader.Bytes(&fixed, 1) && reader.Uint32(&nameLength);
		const uint8* name = ok ? reader.Take(nameLength) : nullptr;
		// Only what AddData could have stored is accepted: a known type, a
		// fixed-size flag of 0 or 1, a name without zeros that no earlier
		// field uses, and items of one size in a fixed-size field.
		ok = name != nullptr && fixed <= 1 && field.type != B_ANY_TYPE &&
		     std::memchr(name, '\0', nameLength) == nullptr && reader.Uint32(&itemCount) &&
		     itemCount > 0;
		if (ok) {
			field.name.assign(reinterpret_cast<const char*>(name), nameLength);
			ok = names.insert(field.name).second;
		}
		if (!ok)
			break;
		field.fixedSize = fixed != 0;
		for (uint32 j = 0; ok && j < itemCount; j++) {
			uint32 itemSize = 0;
			const uint8* item = reader.Uint32(&itemSize) ? reader.Take(itemSize) : nullptr;
			ok = item != nullptr && itemSize > 0 && itemSize <= 0x7FFFFFFF &&
			     (!field.fixedSize || j == 0 || itemSize == field.items.front().size());
			if (ok)
				field.items.emplace_back(item, item + itemSize);
		}
		if (ok) {
			field.itemSize = field.items.front().size();
			fields.list.push_back(std::move(field));
		}
	}
	ok = ok && reader.Left() == 0;
	if (ok) {
		message->what = what;
		*message->fFields = std::move(fields);
	} else {
		message->what = 0;
		message->fFields->list.clear();
	}
	return ok;
}
