// ZvRemote.h: loopers reached from other processes and machines, over
// ZeroMQ. The classes live in their own library, libzvremote (CMake target
// ZvKit::zvremote, pkg-config zvremote); libzvkit does not need it.
//
// A ZvRemoteEndpoint owns one ZeroMQ context and one I/O thread. Bind makes
// it listen on an address ("ipc:///path", "tcp://127.0.0.1:5555"), and
// Publish names local loopers or handlers (through a ZvLooperRef) that
// peers may reach. Connect gives a ZvRemoteRef for a name published by the
// endpoint at an address; posting and sending through it has the results of
// ZvLooperRef's calls of the same names. One endpoint may bind, publish and
// connect at once.
//
// On the wire each message is one ZeroMQ frame: a 24-byte header that
// states the byte order of everything after its first eight bytes, the
// target's name, and the message in its flattened form in that order. The
// receiver reads it with the bounded reader and posts it to the published
// target as an ordinary post. Frames that are too big, malformed, or for a
// name nobody published are refused: counted (GetStats), posted as a
// ZV_REMOTE_REFUSED notice to the report target when one is set, and, for a
// request, answered with an error so that its sender does not wait in vain.
//
// Order and delivery: the frames that one ZvRemoteEndpoint sends to one
// address arrive in the order sent and are posted in that order. A request
// is posted after everything sent before it; posts sent after a request may
// reach the looper before it (a helper thread posts the request and waits
// for its answer). Delivery is at most once: while the peer is away
// (not started yet, restarting, unreachable) frames wait in the sender's
// queue and go when it is back; frames already handed to a peer process that
// then dies are lost. A request whose answer does not come in time ends with
// B_TIMED_OUT, and its late answer is dropped and counted.
//
// Ownership and threads: the endpoint owns its sockets and threads; its
// destructor stops them (see ~ZvRemoteEndpoint). Refs share the endpoint's
// engine: a ref outliving its endpoint stays safe, and its calls fail with
// B_BAD_VALUE. All calls of both classes may be made from any thread.
#ifndef _ZV_REMOTE_H
#define _ZV_REMOTE_H

#include <OS.h>
#include <SupportDefs.h>

#include <ZvByteOrder.h>
#include <ZvExport.h>
#include <ZvLooperRef.h>

#include <memory>

class ZvMessage;

namespace zvkit {
namespace internal {
class RemoteEngine;
} // namespace internal
} // namespace zvkit

// The what of the notices posted to an endpoint's report target: field
// "reason" (string: "oversized", "malformed", "unknown target"), "size"
// (int64, the frame's size) and, when the header could be read, "name"
// (string, the target named).
enum
{
	ZV_REMOTE_REFUSED = 0x7A765246 // 'zvRF'
};

// The whats of the notices posted to the report target when a connection
// is made or lost; field "address" (string), the peer's address as ZeroMQ
// gives it.
enum
{
	ZV_REMOTE_CONNECTED = 0x7A76434E,   // 'zvCN'
	ZV_REMOTE_DISCONNECTED = 0x7A764443 // 'zvDC'
};

// The largest name a looper may be published under, in bytes.
enum
{
	ZV_REMOTE_NAME_LENGTH = 63
};

// An endpoint's counters, since it was made. A frame is one post, request
// or answer; the frames of a batch (several posts and requests sent as one
// ZeroMQ message) count one by one, a batch refused whole counts as one.
// Every frame received is counted once in framesReceived and then either
// delivered, answered, or counted in one of the refused or late counters.
struct zv_remote_stats
{
	uint64 framesSent;           // frames handed to ZeroMQ
	uint64 framesReceived;       // frames read from ZeroMQ
	uint64 postsDelivered;       // posts queued in a published looper
	uint64 requestsAnswered;     // requests answered (any result)
	uint64 repliesReceived;      // answers matched with a waiting sender
	uint64 refusedOversized;     // frames over the size limit
	uint64 refusedMalformed;     // frames with a bad header or body
	uint64 refusedUnknownTarget; // frames for a name not published (or gone)
	uint64 lateReplies;          // answers that came after their sender left
	uint64 undeliverable;        // frames that could not be sent at all
	uint64 connects;             // connections made (to or from peers)
	uint64 disconnects;          // connections lost
};

class ZvRemoteRef;

// Owns a ZeroMQ context, its sockets and the I/O thread that alone uses
// them. Not copyable.
class ZV_EXPORT ZvRemoteEndpoint
{
public:
	ZvRemoteEndpoint();
	// Stops the I/O thread. Frames still queued are handed to ZeroMQ, which
	// tries to send them for at most the linger time (SetLinger, 1 s by
	// default); waiting senders are answered B_BAD_VALUE; requests being
	// served by the endpoint's published loopers are waited for.
	~ZvRemoteEndpoint();

	ZvRemoteEndpoint(const ZvRemoteEndpoint&) = delete;
	ZvRemoteEndpoint& operator=(const ZvRemoteEndpoint&) = delete;

	// B_OK, or B_NO_INIT when ZeroMQ could not be set up.
	status_t InitCheck() const;

	// Listens on address. B_OK; B_BAD_VALUE for a null or invalid address;
	// B_NAME_IN_USE when it is taken; B_ERROR for another ZeroMQ failure.
	// Each Bind adds an address to the endpoint's one listening socket.
	status_t Bind(const char* address);

	// Makes target reachable under name (1 to ZV_REMOTE_NAME_LENGTH
	// bytes). B_OK; B_BAD_VALUE for a bad name or an invalid target;
	// B_NAME_IN_USE when the name is published already.
	status_t Publish(const char* name, const ZvLooperRef& target);
	// B_OK, or B_NAME_NOT_FOUND.
	status_t Unpublish(const char* name);

	// A ref to the target published under name by the endpoint at address.
	// Connecting does not wait for the peer (it may not be there yet).
	// B_OK; B_BAD_VALUE for a null ref, a bad name or an invalid address.
	status_t Connect(const char* address, const char* name, ZvRemoteRef* ref);

	// Frames bigger than bytes (header included) are refused; at least 64,
	// default 16 MiB. Takes effect for frames read from now on. Frames more
	// than twice the limit (and 64 KiB) long, the limit as it was at the
	// first Bind, are refused by ZeroMQ itself, which then drops the
	// sender's connection; ZeroMQ does not report them, so they are not
	// counted. B_BAD_VALUE below 64.
	status_t SetMaxFrameSize(size_t bytes);
	// The size limit for frames read, in bytes.
	size_t MaxFrameSize() const;

	// The byte order of the frames this endpoint writes; ZV_HOST_ENDIAN by
	// default. Receivers read either.
	status_t SetWireOrder(zv_byte_order order);

	// How many frames may wait to be handed to ZeroMQ before posts wait for
	// room: default 10,000, effective at once. B_BAD_VALUE below 1.
	status_t SetQueueLimit(int32 frames);
	// How long closing sockets may try to send what is left: default 1 s,
	// for the sockets that Bind and Connect make from now on. B_BAD_VALUE
	// for a negative time.
	status_t SetLinger(bigtime_t timeout);

	// Refused frames are posted here as ZV_REMOTE_REFUSED notices, and
	// connections made and lost as ZV_REMOTE_CONNECTED and
	// ZV_REMOTE_DISCONNECTED (never waiting for room: a full queue loses the
	// notice, not the count). An invalid ref (the default) turns the notices
	// off.
	void SetReportTarget(const ZvLooperRef& target);

	// Copies the counters. B_OK, or B_BAD_VALUE for a null stats.
	status_t GetStats(zv_remote_stats* stats) const;

private:
	std::shared_ptr<zvkit::internal::RemoteEngine> fEngine;
};

// A handle to a looper published by another endpoint: a small copyable
// value. The same calls as ZvLooperRef, with the same results:
//  - PostMessage: B_OK when the frame was queued for sending (delivery
//    happens later, see above); B_BAD_VALUE for a null message, an invalid
//    ref or an endpoint that is gone; B_WOULD_BLOCK (timeout 0) or
//    B_TIMED_OUT when the send queue stayed full for timeout;
//  - SendMessage: B_OK with the answer in reply (what ZV_NO_REPLY when the
//    request was deleted unanswered); B_TIMED_OUT; B_BAD_VALUE when the
//    name is not published at the peer, when the ref or endpoint is gone,
//    or for a null message or reply; B_BAD_DATA when the peer refused the
//    request as malformed or oversized.
// A null timeout for SendMessage only polls, and so always times out.
class ZV_EXPORT ZvRemoteRef
{
public:
	// Names nothing: invalid until Connect fills it.
	ZvRemoteRef();
	// The same target through the same endpoint.
	ZvRemoteRef(const ZvRemoteRef& other);
	// Names other's target from now on.
	ZvRemoteRef& operator=(const ZvRemoteRef& other);
	~ZvRemoteRef();

	// True when made by Connect and the endpoint is still there; says
	// nothing about the peer.
	bool IsValid() const;
	// The published name this ref aims at ("" for an invalid ref).
	const char* Name() const;

	// Sends a copy of message as a post; the results are listed above.
	status_t PostMessage(const ZvMessage* message, bigtime_t timeout = B_INFINITE_TIMEOUT) const;
	// Posts a new message with what.
	status_t PostMessage(uint32 what, bigtime_t timeout = B_INFINITE_TIMEOUT) const;
	// Sends a copy of message as a request and waits at most timeout for
	// the answer, which is assigned to reply; the results are listed above.
	status_t SendMessage(const ZvMessage* message, ZvMessage* reply,
	                     bigtime_t timeout = B_INFINITE_TIMEOUT) const;
	// Sends a new message with what as a request.
	status_t SendMessage(uint32 what, ZvMessage* reply,
	                     bigtime_t timeout = B_INFINITE_TIMEOUT) const;

private:
	friend class ZvRemoteEndpoint;

	std::shared_ptr<zvkit::internal::RemoteEngine> fEngine;
	int32 fPeer;
	char fName[ZV_REMOTE_NAME_LENGTH + 1];
};

#endif // _ZV_REMOTE_H
