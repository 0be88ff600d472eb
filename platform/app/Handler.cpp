// Handler.cpp: BHandler, a named message target with a process-unique token.

#include <Handler.h>

#include <Looper.h>

#include <cstring>

namespace {

// Tokens start at 1 and are never reused within a process, so a stale token
// held by a messenger never names a newer handler.
int32 sNextToken = 1;

char* CopyName(const char* name)
{
	if (name == nullptr)
		return nullptr;
	size_t length = std::strlen(name);
	char* copy = new char[length + 1];
	std::memcpy(copy, name, length + 1);
	return copy;
}

} // namespace

BHandler::BHandler(const char* name)
    : fName(CopyName(name)), fLooper(nullptr), fToken(atomic_add(&sNextToken, 1))
{
}

BHandler::~BHandler()
{
	// A handler deleted while still attached leaves its looper first, so
	// the looper never dispatches to freed memory.
	BLooper* looper = fLooper;
	if (looper != nullptr && looper->Lock()) {
		looper->RemoveHandler(this);
		looper->Unlock();
	}
	delete[] fName;
}

void BHandler::MessageReceived(BMessage*) {}

BLooper* BHandler::Looper() const
{
	return fLooper;
}

void BHandler::SetName(const char* name)
{
	char* copy = CopyName(name);
	delete[] fName;
	fName = copy;
}

const char* BHandler::Name() const
{
	return fName;
}

bool BHandler::LockLooper()
{
	BLooper* looper = fLooper;
	if (looper == nullptr || !looper->Lock())
		return false;
	// The handler may have changed loopers while this thread waited.
	if (fLooper != looper) {
		looper->Unlock();
		return false;
	}
	return true;
}

void BHandler::UnlockLooper()
{
	if (fLooper != nullptr)
		fLooper->Unlock();
}
