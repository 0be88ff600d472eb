// Looper.cpp: BLooper, its queue (LooperPort) and the registry of loopers.

#include <Looper.h>

#include <Message.h>
#include <Messenger.h>

#include "AppPrivate.h"

#include <algorithm>
#include <chrono>
#include <map>

#include <unistd.h>

using BPrivate::LooperAccess;
using BPrivate::LooperPort;
using BPrivate::LooperRegistry;
using BPrivate::MessageAccess;
using BPrivate::MessageDelivery;

// #pragma mark - LooperPort

LooperPort::LooperPort(int32 capacity)
    : fCapacity(capacity > 0 ? static_cast<size_t>(capacity) : 1), fClosed(false)
{
}

status_t LooperPort::Push(BMessage* message, bigtime_t timeout, bool force)
{
	std::unique_lock<std::mutex> lock(fLock);
	auto hasRoom = [this] { return fClosed || fQueue.size() < fCapacity; };
	if (!force && !hasRoom()) {
		if (timeout <= 0)
			return B_WOULD_BLOCK;
		if (timeout >= BPrivate::kUnlimitedWait) {
			fNotFull.wait(lock, hasRoom);
		} else if (!fNotFull.wait_for(lock, std::chrono::microseconds(timeout), hasRoom)) {
			return B_TIMED_OUT;
		}
	}
	if (fClosed)
		return B_BAD_PORT_ID;
	fQueue.push_back(message);
	fNotEmpty.notify_one();
	return B_OK;
}

BMessage* LooperPort::Pop()
{
	std::unique_lock<std::mutex> lock(fLock);
	fNotEmpty.wait(lock, [this] { return !fQueue.empty(); });
	BMessage* message = fQueue.front();
	fQueue.pop_front();
	fNotFull.notify_one();
	return message;
}

void LooperPort::Close(std::vector<BMessage*>* leftovers)
{
	std::lock_guard<std::mutex> lock(fLock);
	fClosed = true;
	leftovers->assign(fQueue.begin(), fQueue.end());
	fQueue.clear();
	// Senders waiting for room learn that the port is gone.
	fNotFull.notify_all();
}

// #pragma mark - LooperRegistry

namespace {

struct RegistryTable
{
	std::mutex lock;
	std::map<int32, LooperRegistry::Target> loopers;
	int32 nextId = 1;
};

// Never destroyed: looper threads may still be running while the process
// exits, and they must find the table intact.
RegistryTable& Table()
{
	static RegistryTable* table = new RegistryTable;
	return *table;
}

} // namespace

int32 LooperRegistry::Add(BLooper* looper, const std::shared_ptr<LooperPort>& port)
{
	RegistryTable& table = Table();
	std::lock_guard<std::mutex> lock(table.lock);
	// Ids are not reused, so a messenger of a quit looper never reaches a
	// newer one.
	int32 id = table.nextId++;
	Target& target = table.loopers[id];
	target.looper = looper;
	target.port = port;
	return id;
}

void LooperRegistry::SetThread(int32 id, thread_id thread)
{
	RegistryTable& table = Table();
	std::lock_guard<std::mutex> lock(table.lock);
	auto found = table.loopers.find(id);
	if (found != table.loopers.end())
		found->second.thread = thread;
}

void LooperRegistry::Remove(int32 id)
{
	RegistryTable& table = Table();
	std::lock_guard<std::mutex> lock(table.lock);
	table.loopers.erase(id);
}

bool LooperRegistry::Find(int32 id, Target* target)
{
	RegistryTable& table = Table();
	std::lock_guard<std::mutex> lock(table.lock);
	auto found = table.loopers.find(id);
	if (found == table.loopers.end())
		return false;
	*target = found->second;
	return true;
}

bool LooperRegistry::Exists(int32 id)
{
	RegistryTable& table = Table();
	std::lock_guard<std::mutex> lock(table.lock);
	return table.loopers.count(id) != 0;
}

BLooper* LooperRegistry::ForThread(thread_id thread)
{
	RegistryTable& table = Table();
	std::lock_guard<std::mutex> lock(table.lock);
	for (const auto& entry : table.loopers) {
		if (entry.second.thread == thread)
			return entry.second.looper;
	}
	return nullptr;
}

bool LooperRegistry::FindHandler(int32 id, int32 token, BLooper** looper, BHandler** handler)
{
	RegistryTable& table = Table();
	// The registry lock keeps the looper from being deleted meanwhile (its
	// destructor removes it from the table first); the handler list has
	// its own lock.
	std::lock_guard<std::mutex> lock(table.lock);
	auto found = table.loopers.find(id);
	if (found == table.loopers.end())
		return false;
	*looper = found->second.looper;
	*handler = token < 0 ? nullptr : LooperAccess::HandlerForToken(*looper, token);
	return true;
}

// #pragma mark - BLooper

struct BLooper::Private
{
	std::shared_ptr<LooperPort> port;
	// Guards `handlers` and the handlers' looper links, so that messengers
	// can resolve tokens from any thread. Changes also need the looper lock.
	mutable std::mutex handlersLock;
	std::vector<BHandler*> handlers;
};

BHandler* LooperAccess::HandlerForToken(const BLooper* looper, int32 token)
{
	std::lock_guard<std::mutex> lock(looper->fPrivate->handlersLock);
	for (BHandler* handler : looper->fPrivate->handlers) {
		if (handler->fToken == token)
			return handler;
	}
	return nullptr;
}

const std::shared_ptr<LooperPort>& LooperAccess::Port(const BLooper* looper)
{
	return looper->fPrivate->port;
}

BLooper::BLooper(const char* name, int32 priority, int32 portCapacity)
    : BHandler(name), fLock(name != nullptr ? name : "BLooper"), fPrivate(new Private), fId(-1),
      fPriority(priority), fThread(-1), fRunCalled(false), fTerminating(false), fPreferred(nullptr),
      fCurrentMessage(nullptr)
{
	fPrivate->port = std::make_shared<LooperPort>(portCapacity);
	// As on the platform, the constructing thread holds the lock until Run.
	fLock.Lock();
	AddHandler(this);
	fId = LooperRegistry::Add(this, fPrivate->port);
}

BLooper::~BLooper()
{
	// Unregister first: from here on no messenger reaches this looper.
	LooperRegistry::Remove(fId);

	std::vector<BMessage*> leftovers;
	fPrivate->port->Close(&leftovers);
	// Deleting an undelivered message answers a waiting sender B_NO_REPLY.
	for (BMessage* message : leftovers)
		delete message;

	{
		std::lock_guard<std::mutex> lock(fPrivate->handlersLock);
		for (BHandler* handler : fPrivate->handlers)
			handler->fLooper = nullptr;
		fPrivate->handlers.clear();
	}
	delete fPrivate;
}

// #pragma mark - Posting

status_t BLooper::PostMessage(uint32 command)
{
	BMessage message(command);
	return _Post(&message, this, nullptr);
}

status_t BLooper::PostMessage(BMessage* message)
{
	return _Post(message, this, nullptr);
}

status_t BLooper::PostMessage(uint32 command, BHandler* handler, BHandler* replyTo)
{
	BMessage message(command);
	return _Post(&message, handler, replyTo);
}

status_t BLooper::PostMessage(BMessage* message, BHandler* handler, BHandler* replyTo)
{
	return _Post(message, handler, replyTo);
}

status_t BLooper::_Post(BMessage* message, BHandler* handler, BHandler* replyTo)
{
	if (message == nullptr)
		return B_BAD_VALUE;
	int32 token = -1;
	if (handler != nullptr) {
		std::lock_guard<std::mutex> lock(fPrivate->handlersLock);
		if (handler->fLooper != this)
			return B_MISMATCHED_VALUES;
		token = handler->fToken;
	}
	// Posting never waits for room: a full queue gives B_WOULD_BLOCK.
	return BPrivate::DeliverTo(fId, token, message, replyTo, nullptr, 0);
}

// #pragma mark - Dispatching

void BLooper::DispatchMessage(BMessage* message, BHandler* handler)
{
	if (message->what == B_QUIT_REQUESTED && handler == this) {
		const bool quit = QuitRequested();
		if (message->IsSourceWaiting()) {
			BMessage reply(B_REPLY);
			reply.AddBool("result", quit);
			message->SendReply(&reply);
		}
		if (quit)
			Quit();
		return;
	}
	handler->MessageReceived(message);
}

void BLooper::MessageReceived(BMessage* message)
{
	BHandler::MessageReceived(message);
}

BMessage* BLooper::CurrentMessage() const
{
	return fCurrentMessage;
}

status_t BLooper::_ThreadEntry(void* data)
{
	static_cast<BLooper*>(data)->_Loop();
	return B_OK;
}

void BLooper::_Loop()
{
	for (;;) {
		BMessage* message = fPrivate->port->Pop();
		Lock();
		if (MessageAccess::IsQuitOrder(message)) {
			fTerminating = true;
		} else {
			MessageDelivery* delivery = MessageAccess::Delivery(message);
			BHandler* handler = nullptr;
			if (delivery->targetToken < 0)
				handler = fPreferred != nullptr ? fPreferred : this;
			else
				handler = LooperAccess::HandlerForToken(this, delivery->targetToken);
			// A handler that left the looper after the message was posted:
			// the message is dropped (a waiting sender gets B_NO_REPLY).
			if (handler != nullptr) {
				fCurrentMessage = message;
				DispatchMessage(message, handler);
				fCurrentMessage = nullptr;
			}
		}
		delete message;
		if (fTerminating)
			break;
		Unlock();
	}
	// The loop ends with the lock held by this thread; the looper is deleted
	// in its own thread, as on the platform.
	delete this;
}

// #pragma mark - Handlers

void BLooper::AddHandler(BHandler* handler)
{
	if (handler == nullptr)
		return;
	std::lock_guard<std::mutex> lock(fPrivate->handlersLock);
	if (handler->fLooper != nullptr)
		return;
	handler->fLooper = this;
	fPrivate->handlers.push_back(handler);
}

bool BLooper::RemoveHandler(BHandler* handler)
{
	if (handler == nullptr || handler == this)
		return false;
	std::lock_guard<std::mutex> lock(fPrivate->handlersLock);
	auto found = std::find(fPrivate->handlers.begin(), fPrivate->handlers.end(), handler);
	if (found == fPrivate->handlers.end())
		return false;
	fPrivate->handlers.erase(found);
	handler->fLooper = nullptr;
	if (fPreferred == handler)
		fPreferred = nullptr;
	return true;
}

int32 BLooper::CountHandlers() const
{
	std::lock_guard<std::mutex> lock(fPrivate->handlersLock);
	return static_cast<int32>(fPrivate->handlers.size());
}

BHandler* BLooper::HandlerAt(int32 index) const
{
	std::lock_guard<std::mutex> lock(fPrivate->handlersLock);
	if (index < 0 || static_cast<size_t>(index) >= fPrivate->handlers.size())
		return nullptr;
	return fPrivate->handlers[static_cast<size_t>(index)];
}

int32 BLooper::IndexOf(BHandler* handler) const
{
	std::lock_guard<std::mutex> lock(fPrivate->handlersLock);
	auto found = std::find(fPrivate->handlers.begin(), fPrivate->handlers.end(), handler);
	if (found == fPrivate->handlers.end())
		return -1;
	return static_cast<int32>(found - fPrivate->handlers.begin());
}

BHandler* BLooper::PreferredHandler() const
{
	return fPreferred;
}

void BLooper::SetPreferredHandler(BHandler* handler)
{
	if (handler != nullptr && handler->Looper() != this)
		return;
	fPreferred = handler;
}

// #pragma mark - Life cycle

thread_id BLooper::Run()
{
	if (fRunCalled)
		return B_ALREADY_RUNNING;
	const char* name = Name() != nullptr ? Name() : "BLooper";
	thread_id thread = spawn_thread(&BLooper::_ThreadEntry, name, fPriority, this);
	if (thread < 0)
		return thread;
	fThread = thread;
	fRunCalled = true;
	LooperRegistry::SetThread(fId, thread);
	// Release the lock taken in the constructor (ignored when this thread
	// does not hold it). From resume_thread on, the looper may quit and be
	// deleted at any time, so only the saved id is used after it.
	Unlock();
	resume_thread(thread);
	return thread;
}

void BLooper::Quit()
{
	if (!fRunCalled) {
		delete this;
		return;
	}
	const thread_id self = find_thread(nullptr);
	if (self == fThread) {
		// In the looper's own thread (from a handler): the loop ends after
		// the current message and deletes the looper.
		fTerminating = true;
		return;
	}

	const thread_id thread = fThread;
	// The looper's thread must be able to lock the looper to finish, so this
	// thread gives up every lock it holds on it. How many those are is read
	// before the quit order goes out: once the order is queued, a looper
	// that this thread does not hold may be deleted at any moment, and
	// after the last Unlock nothing of `this` is touched either.
	int32 held = fLock.LockingThread() == self ? fLock.CountLocks() : 0;
	// The quit order bypasses the queue's capacity; if the port is already
	// closed the looper is being deleted anyway. The port is held by a
	// reference of this call: the looper (and its reference) may be gone
	// before Push has returned.
	std::shared_ptr<LooperPort> port = fPrivate->port;
	BMessage* order = MessageAccess::MakeQuitOrder();
	if (port->Push(order, 0, true) != B_OK)
		delete order;
	for (; held > 0; held--)
		fLock.Unlock();
	status_t exitValue = B_OK;
	wait_for_thread(thread, &exitValue);
}

bool BLooper::QuitRequested()
{
	return true;
}

// #pragma mark - Locking

bool BLooper::Lock()
{
	return fLock.Lock();
}

void BLooper::Unlock()
{
	fLock.Unlock();
}

bool BLooper::IsLocked() const
{
	return fLock.IsLocked();
}

status_t BLooper::LockWithTimeout(bigtime_t timeout)
{
	return fLock.LockWithTimeout(timeout);
}

thread_id BLooper::LockingThread() const
{
	return fLock.LockingThread();
}

int32 BLooper::CountLocks() const
{
	return fLock.CountLocks();
}

thread_id BLooper::Thread() const
{
	return fThread;
}

team_id BLooper::Team() const
{
	return static_cast<team_id>(getpid());
}

BLooper* BLooper::LooperForThread(thread_id thread)
{
	return LooperRegistry::ForThread(thread);
}
