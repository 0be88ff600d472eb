// AppPrivate.h: the application kit's internals shared by its sources.
//
//  - LooperPort: a looper's message queue. It is reference counted so that a
//    sender that found the port through the registry can still push safely
//    while the looper is being deleted (the push then fails or the message
//    is deleted with the port's leftovers).
//  - LooperRegistry: the process-wide table of living loopers, keyed by the
//    looper's id. Messengers hold only ids and look the looper up here.
//  - ReplyChannel: where a synchronous sender waits for its answer.
//  - MessageAccess, LooperAccess: the kit's own access to private members.
#ifndef _APP_PRIVATE_H
#define _APP_PRIVATE_H

#include <Handler.h>
#include <Looper.h>
#include <Message.h>

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

namespace BPrivate {

// Waits of at least this many microseconds are treated as unlimited (a
// deadline that far out would overflow the clock's representation).
const bigtime_t kUnlimitedWait = 1000000000000000LL;

class LooperPort
{
public:
	explicit LooperPort(int32 capacity);

	// Appends `message` (taking ownership on B_OK). Waits up to `timeout`
	// microseconds for room; B_WOULD_BLOCK when the queue is full and
	// timeout is 0, B_TIMED_OUT after a longer wait, B_BAD_PORT_ID once the
	// port is closed. `force` ignores the capacity.
	status_t Push(BMessage* message, bigtime_t timeout, bool force = false);
	// Removes the oldest message, waiting until there is one.
	BMessage* Pop();
	// Refuses further pushes and hands back what is still queued.
	void Close(std::vector<BMessage*>* leftovers);

private:
	std::mutex fLock;
	std::condition_variable fNotEmpty;
	std::condition_variable fNotFull;
	std::deque<BMessage*> fQueue;
	size_t fCapacity;
	bool fClosed;
};

struct ReplyChannel
{
	std::mutex lock;
	std::condition_variable answered;
	std::unique_ptr<BMessage> reply;
};

// Delivery data of a message in (or taken from) a looper's queue.
struct MessageDelivery
{
	// Handler token of the target; -1 for the looper's preferred handler.
	int32 targetToken = -1;
	// Where SendReply sends to when no sender waits: a looper id and a
	// handler token, or -1.
	int32 replyLooper = -1;
	int32 replyToken = -1;
	// Set when a sender waits in BMessenger::SendMessage.
	std::shared_ptr<ReplyChannel> waiter;
	bool replied = false;
	// The looper's own order to end its loop (sent by Quit).
	bool quitOrder = false;
};

class MessageAccess
{
public:
	// Copies `message` for delivery (fields and what, fresh delivery data).
	static BMessage* CopyForDelivery(const BMessage* message);
	static MessageDelivery* Delivery(BMessage* message);
	static BMessage* MakeQuitOrder();
	static bool IsQuitOrder(BMessage* message);
	// Flattened form of a message, used for nested message fields.
	static void Flatten(const BMessage* message, std::vector<uint8>* out);
	// False (message emptied) when the bytes are not a whole flattened
	// message.
	static bool Unflatten(BMessage* message, const uint8* data, size_t size);
};

class LooperRegistry
{
public:
	struct Target
	{
		BLooper* looper = nullptr;
		std::shared_ptr<LooperPort> port;
		thread_id thread = -1;
	};

	static int32 Add(BLooper* looper, const std::shared_ptr<LooperPort>& port);
	static void SetThread(int32 id, thread_id thread);
	static void Remove(int32 id);
	static bool Find(int32 id, Target* target);
	static bool Exists(int32 id);
	static BLooper* ForThread(thread_id thread);
	// With the registry locked: the looper with that id and its handler of
	// that token (-1 asks for no handler). False when the looper is gone.
	static bool FindHandler(int32 id, int32 token, BLooper** looper, BHandler** handler);
};

class LooperAccess
{
public:
	static int32 Id(const BLooper* looper) { return looper->fId; }
	static int32 Token(const BHandler* handler) { return handler->fToken; }
	static BHandler* HandlerForToken(const BLooper* looper, int32 token);
	static const std::shared_ptr<LooperPort>& Port(const BLooper* looper);
};

// Sends `message` (copied) to the handler `token` of looper `looperId`, as
// BMessenger::SendMessage does; `replyTo` names where its answer goes.
status_t DeliverTo(int32 looperId, int32 token, const BMessage* message, BHandler* replyTo,
                   const std::shared_ptr<ReplyChannel>& waiter, bigtime_t timeout);

} // namespace BPrivate

#endif // _APP_PRIVATE_H
