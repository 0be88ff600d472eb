// ZvHandler: a named message target linked to at most one looper.

#include <ZvHandler.h>
#include <ZvLooper.h>

#include "looper/internal/LooperControl.h"

#include <cstring>

namespace {

// A heap copy of name with array new, or null for a null name.
char* CopyName(const char* name)
{
	if (name == nullptr)
		return nullptr;
	const size_t length = std::strlen(name) + 1;
	char* copy = new char[length];
	std::memcpy(copy, name, length);
	return copy;
}

} // namespace

ZvHandler::ZvHandler(const char* name)
    : fName(CopyName(name)), fLooper(nullptr), fControl(new zvkit::internal::HandlerControl)
{
}

ZvHandler::~ZvHandler()
{
	// Refs made from this handler see it gone; they keep the record alive.
	fControl->MarkDeleted();
	fControl->Release();
	delete[] fName;
}

void ZvHandler::MessageReceived(ZvMessage*) {}

void ZvHandler::SetName(const char* name)
{
	delete[] fName;
	fName = nullptr;
	fName = CopyName(name);
}

const char* ZvHandler::Name() const
{
	return fName;
}

void ZvHandler::SetLooper(const ZvLooper* looper)
{
	// The link is only a name for the looper; handing it out non-const is
	// what Looper() promises its callers.
	fLooper.store(const_cast<ZvLooper*>(looper), std::memory_order_release);
	// Every change of attachment is a new one for the refs, even back to
	// the same looper.
	fControl->Attach(looper != nullptr ? looper->_Control() : nullptr);
}

ZvLooper* ZvHandler::Looper() const
{
	return fLooper.load(std::memory_order_acquire);
}
