// RemoteEngine.h: what a ZvRemoteEndpoint and its refs share.
//
// The engine owns a ZeroMQ context and the I/O thread that alone touches
// its sockets: one ROUTER socket for the addresses it binds (posts and
// requests come in, answers go out) and one DEALER socket per address it
// connects to (posts and requests go out, answers come in). Other threads
// hand it frames through a queue guarded by fLock and wake it with an
// eventfd that its zmq_poll watches. Posts and requests are flattened
// straight into the batch at the end of that queue when it is for the same
// peer, so a burst of posts costs one wake-up and one ZeroMQ message.
//
// Requests that arrive are served by a few helper threads, each of which
// posts one request to its target through ZvLooperRef::SendMessage and
// waits for the answer, so the I/O thread never waits for a handler.
//
// Ownership: the endpoint and every ref hold the engine by shared_ptr; Stop
// (the endpoint's destructor) ends the threads and closes the sockets, after
// which calls through the refs fail with B_BAD_VALUE.
//
// Thread safety: every public member may be called from any thread.
#ifndef _ZV_INTERNAL_REMOTE_ENGINE_H
#define _ZV_INTERNAL_REMOTE_ENGINE_H

#include <OS.h>
#include <SupportDefs.h>

#include <ZvByteOrder.h>
#include <ZvLooperRef.h>
#include <ZvMessage.h>
#include <ZvRemote.h>

#include "remote/internal/WireFrame.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace zvkit {
namespace internal {

class RemoteEngine
{
public:
	RemoteEngine();
	~RemoteEngine();

	RemoteEngine(const RemoteEngine&) = delete;
	RemoteEngine& operator=(const RemoteEngine&) = delete;

	status_t InitCheck() const { return fContext != nullptr ? B_OK : B_NO_INIT; }
	// Ends the threads and closes the sockets; idempotent.
	void Stop();
	bool IsStopped() const { return fStopped.load(std::memory_order_acquire); }

	status_t Bind(const char* address);
	// The peer number of the DEALER connected to address (one per address).
	status_t Connect(const char* address, int32* peer);
	status_t Publish(const char* name, const ZvLooperRef& target);
	status_t Unpublish(const char* name);

	status_t Post(int32 peer, const char* name, const ZvMessage* message, bigtime_t timeout);
	status_t Request(int32 peer, const char* name, const ZvMessage* message, ZvMessage* reply,
	                 bigtime_t timeout);

	status_t SetMaxFrameSize(size_t bytes);
	size_t MaxFrameSize() const { return fMaxFrame.load(std::memory_order_relaxed); }
	status_t SetWireOrder(zv_byte_order order);
	status_t SetQueueLimit(int32 frames);
	status_t SetLinger(bigtime_t timeout);
	void SetReportTarget(const ZvLooperRef& target);
	void GetStats(zv_remote_stats* stats) const;

private:
	// A frame on its way to a socket: a DEALER (peer >= 0) or the ROUTER,
	// addressed to the connection identity.
	//
	// Posts and requests are gathered in batches as they are queued: data
	// holds capacity bytes, room for a batch header and then count entries
	// (WriteEntry), size bytes in all. Answers (count 0) are one whole frame
	// each.
	struct Outgoing
	{
		int32 peer = -1;
		std::string identity;
		uint8* data = nullptr;
		size_t size = 0;
		size_t capacity = 0;
		uint32 count = 0;
		zv_byte_order order = ZV_LITTLE_ENDIAN;
	};

	static size_t FramesIn(const Outgoing& frame) { return frame.count == 0 ? 1 : frame.count; }

	// Bind and connect run in the I/O thread; the caller waits for done.
	struct Command
	{
		bool bind = false;
		std::string address;
		int32 peer = -1;
		status_t result = B_ERROR;
		bool done = false;
	};

	// A sender waiting for an answer.
	struct Waiter
	{
		std::condition_variable answered;
		bool done = false;
		status_t status = B_ERROR;
		ZvMessage reply{static_cast<uint32>(0)};
	};

	// A request for a helper thread to serve.
	struct Job
	{
		std::string identity;
		uint64 request = 0;
		ZvLooperRef target;
		ZvMessage* message = nullptr;
		bigtime_t timeout = B_INFINITE_TIMEOUT;
	};

	struct Stats
	{
		std::atomic<uint64> framesSent{0};
		std::atomic<uint64> framesReceived{0};
		std::atomic<uint64> postsDelivered{0};
		std::atomic<uint64> requestsAnswered{0};
		std::atomic<uint64> repliesReceived{0};
		std::atomic<uint64> refusedOversized{0};
		std::atomic<uint64> refusedMalformed{0};
		std::atomic<uint64> refusedUnknownTarget{0};
		std::atomic<uint64> lateReplies{0};
		std::atomic<uint64> undeliverable{0};
		std::atomic<uint64> connects{0};
		std::atomic<uint64> disconnects{0};
	};

	// Waits (fLock held by hold) at most timeout for room in the send queue:
	// B_OK, B_WOULD_BLOCK, B_TIMED_OUT, or B_BAD_VALUE once stopping.
	status_t _WaitForRoom(std::unique_lock<std::mutex>& hold, bigtime_t timeout);
	// Counts one more frame queued, lets go of fLock and wakes the I/O
	// thread unless a wake-up is already pending.
	void _Queued(std::unique_lock<std::mutex>& hold);
	// Queues an answer (taking it) without waiting for room. Deletes the
	// frame when refused.
	status_t _Enqueue(Outgoing&& frame);
	// Flattens message into the batch queued last for peer, or a new one,
	// after waiting at most timeout for room.
	status_t _EnqueueMessage(int32 peer, FrameKind kind, uint64 request, int64 argument,
	                         const char* name, size_t nameLength, const ZvMessage* message,
	                         bigtime_t timeout);
	void _Wake();
	void _SendAnswer(const std::string& identity, uint64 request, status_t status,
	                 const ZvMessage* reply);

	// The I/O thread.
	void _Run();
	void _RunCommand(Command* command);
	// Hands queued frames to the sockets until one would block.
	void _Flush(std::deque<Outgoing>& backlog, void* socket, bool router);
	// Sends the first take batches of backlog, frames frames in all, as one
	// batch; zmq_send's result.
	int _SendMerged(const std::deque<Outgoing>& backlog, size_t take, size_t frames, void* socket);
	void _ReceiveFromRouter();
	void _ReceiveFromDealer(void* socket);
	// A frame as read from a socket: one frame, or a batch of them.
	void _HandleIncoming(const std::string* identity, const uint8* data, size_t size);
	// The target last found for the frames of one ZeroMQ message (a batch
	// mostly names one target throughout).
	struct TargetCache
	{
		bool found = false;
		std::string name;
		ZvLooperRef target;
	};

	// One post, request or answer, alone or taken from a batch.
	void _HandleFrame(const std::string* identity, const uint8* data, size_t size,
	                  TargetCache* cache);
	void _HandleAnswer(const FrameHeader& header);
	void _Refuse(std::atomic<uint64>& counter, const char* reason, size_t size,
	             const FrameHeader* header);
	// The ref published under the header's name, held by cache; null when
	// there is none.
	const ZvLooperRef* _FindTarget(const FrameHeader& header, TargetCache* cache);
	void _FrameDone(size_t count);
	// Watches socket's connections through a monitor socket.
	void _Monitor(void* socket);
	void _ReadMonitor(void* monitor);

	// The helper threads.
	void _Serve();

	void* fContext;
	int fWakeFd;
	std::thread fThread;
	std::atomic<bool> fStopped{false};

	// Guards everything up to fLingerMs.
	std::mutex fLock;
	std::condition_variable fRoom;
	std::condition_variable fCommandDone;
	std::deque<Outgoing> fOutbox;
	std::vector<Command*> fCommands;
	std::map<std::string, int32> fPeers;
	bool fStopping = false;
	bool fWakePending = false;
	int32 fRoomWaiters = 0;
	// Buffers of kMaxBatchBytes that batches are done with.
	std::vector<uint8*> fSpareBuffers;
	size_t fOutstanding = 0;
	int32 fQueueLimit = 10000;
	int fLingerMs = 1000;

	// Owned by the I/O thread.
	void* fRouter = nullptr;
	std::vector<void*> fDealers;
	std::vector<std::deque<Outgoing>> fDealerBacklogs;
	std::vector<void*> fMonitors;
	std::deque<Outgoing> fRouterBacklog;
	// The I/O thread's list for splitting batches, and of batch buffers to
	// give back.
	std::vector<FrameSpan> fBatchFrames;
	std::vector<uint8*> fRecycle;

	std::mutex fTableLock;
	std::map<std::string, ZvLooperRef, std::less<>> fPublished;
	ZvLooperRef fReportTarget;

	std::mutex fWaitersLock;
	std::map<uint64, Waiter*> fWaiters;
	uint64 fNextRequest = 0;

	std::mutex fJobLock;
	std::condition_variable fJobReady;
	std::deque<Job> fJobs;
	std::vector<std::thread> fHelpers;
	bool fJobsClosed = false;

	std::atomic<size_t> fMaxFrame{16 * 1024 * 1024};
	std::atomic<zv_byte_order> fWireOrder;
	Stats fStats;
};

} // namespace internal
} // namespace zvkit

#endif // _ZV_INTERNAL_REMOTE_ENGINE_H
