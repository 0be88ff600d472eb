// RemoteEngine: the sockets, the I/O thread and the request helpers behind
// ZvRemoteEndpoint and ZvRemoteRef.
#include "remote/internal/RemoteEngine.h"

#include <errno.h>
#include <string.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <zmq.h>

#include <algorithm>
#include <chrono>

namespace zvkit {
namespace internal {

namespace {

// The size a sender's batches stay under (receivers take up to
// kMaxBatchBytes): big enough to carry a burst of small posts in few
// ZeroMQ messages, small enough for the allocator to keep reusing.
constexpr size_t kSendBatchBytes = 16 * 1024;
// Whole batch buffers kept for reuse.
constexpr size_t kSpareBuffers = 2;
// Request helper threads: requests waiting for answers at once.
constexpr int kHelpers = 4;
// Frames read from one socket before the others get their turn.
constexpr int kReceiveBatch = 256;
// ZeroMQ's own queue per connection, in frames.
constexpr int kHighWaterMark = 10000;
// How long the I/O thread waits for room in a looper's queue before it
// looks whether it is being stopped.
constexpr bigtime_t kDeliverySlice = 100000;

using Clock = std::chrono::steady_clock;

void FreeBlock(void* data, void*)
{
	delete[] static_cast<uint8*>(data);
}

Clock::time_point DeadlineAfter(bigtime_t timeout)
{
	if (timeout < 0 || timeout == B_INFINITE_TIMEOUT ||
	    timeout >
	        std::chrono::duration_cast<std::chrono::microseconds>(Clock::duration::max()).count() /
	            2)
		return Clock::time_point::max();
	return Clock::now() + std::chrono::microseconds(timeout);
}

bool ValidName(const char* name, size_t* length)
{
	if (name == nullptr)
		return false;
	const size_t n = strnlen(name, kMaxTargetName + 1);
	if (n == 0 || n > kMaxTargetName)
		return false;
	*length = n;
	return true;
}

status_t StatusOfZmqError(int error)
{
	switch (error) {
	case EADDRINUSE:
		return B_NAME_IN_USE;
	case EINVAL:
	case EPROTONOSUPPORT:
	case ENOCOMPATPROTO:
	case EADDRNOTAVAIL:
	case ENODEV:
	case ENOENT:
		return B_BAD_VALUE;
	default:
		return B_ERROR;
	}
}

void SetIntOption(void* socket, int option, int value)
{
	zmq_setsockopt(socket, option, &value, sizeof(value));
}

} // namespace

RemoteEngine::RemoteEngine() : fContext(zmq_ctx_new()), fWakeFd(-1), fWireOrder(ZV_HostByteOrder())
{
	if (fContext == nullptr)
		return;
	fWakeFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
	if (fWakeFd < 0) {
		zmq_ctx_term(fContext);
		fContext = nullptr;
		return;
	}
	fThread = std::thread(&RemoteEngine::_Run, this);
}

RemoteEngine::~RemoteEngine()
{
	Stop();
}

void RemoteEngine::Stop()
{
	if (fStopped.exchange(true, std::memory_order_acq_rel))
		return;
	// From here on refs refuse new posts and requests.
	if (fContext == nullptr)
		return;

	// Helpers finish the requests they serve, and their answers still go
	// out; requests not yet begun are answered "gone".
	std::deque<Job> dropped;
	{
		std::lock_guard<std::mutex> hold(fJobLock);
		fJobsClosed = true;
		dropped.swap(fJobs);
	}
	fJobReady.notify_all();
	for (Job& job : dropped) {
		_SendAnswer(job.identity, job.request, B_BAD_VALUE, nullptr);
		delete job.message;
	}
	for (std::thread& helper : fHelpers)
		helper.join();

	// The I/O thread hands what is queued to ZeroMQ and closes the sockets.
	{
		std::lock_guard<std::mutex> hold(fLock);
		fStopping = true;
	}
	fRoom.notify_all();
	_Wake();
	fThread.join();

	// Senders still waiting learn that the endpoint is gone.
	{
		std::lock_guard<std::mutex> hold(fWaitersLock);
		for (auto& entry : fWaiters) {
			entry.second->done = true;
			entry.second->status = B_BAD_VALUE;
			entry.second->answered.notify_all();
		}
		fWaiters.clear();
	}

	// Frames queued after the I/O thread's last look.
	{
		std::lock_guard<std::mutex> hold(fLock);
		for (Outgoing& frame : fOutbox)
			delete[] frame.data;
		fOutbox.clear();
	}

	{
		std::lock_guard<std::mutex> hold(fLock);
		for (uint8* buffer : fSpareBuffers)
			delete[] buffer;
		fSpareBuffers.clear();
	}
	zmq_ctx_term(fContext);
	close(fWakeFd);
}

status_t RemoteEngine::Bind(const char* address)
{
	if (address == nullptr)
		return B_BAD_VALUE;
	Command command;
	command.bind = true;
	command.address = address;
	std::unique_lock<std::mutex> hold(fLock);
	if (fStopping || fContext == nullptr)
		return B_NO_INIT;
	fCommands.push_back(&command);
	hold.unlock();
	_Wake();
	hold.lock();
	fCommandDone.wait(hold, [&] { return command.done; });
	return command.result;
}

status_t RemoteEngine::Connect(const char* address, int32* peer)
{
	if (address == nullptr || peer == nullptr)
		return B_BAD_VALUE;
	std::unique_lock<std::mutex> hold(fLock);
	if (fStopping || fContext == nullptr)
		return B_BAD_VALUE;
	const auto known = fPeers.find(address);
	if (known != fPeers.end()) {
		*peer = known->second;
		return B_OK;
	}
	Command command;
	command.address = address;
	fCommands.push_back(&command);
	hold.unlock();
	_Wake();
	hold.lock();
	fCommandDone.wait(hold, [&] { return command.done; });
	if (command.result != B_OK)
		return command.result;
	fPeers.emplace(address, command.peer);
	*peer = command.peer;
	return B_OK;
}

status_t RemoteEngine::Publish(const char* name, const ZvLooperRef& target)
{
	size_t length;
	if (!ValidName(name, &length) || !target.IsValid())
		return B_BAD_VALUE;
	std::lock_guard<std::mutex> hold(fTableLock);
	if (!fPublished.emplace(std::string(name, length), target).second)
		return B_NAME_IN_USE;
	return B_OK;
}

status_t RemoteEngine::Unpublish(const char* name)
{
	size_t length;
	if (!ValidName(name, &length))
		return B_NAME_NOT_FOUND;
	std::lock_guard<std::mutex> hold(fTableLock);
	return fPublished.erase(std::string(name, length)) > 0 ? B_OK : B_NAME_NOT_FOUND;
}

status_t RemoteEngine::SetMaxFrameSize(size_t bytes)
{
	if (bytes < 64)
		return B_BAD_VALUE;
	fMaxFrame.store(bytes, std::memory_order_relaxed);
	return B_OK;
}

status_t RemoteEngine::SetWireOrder(zv_byte_order order)
{
	if (order == ZV_HOST_ENDIAN)
		order = ZV_HostByteOrder();
	if (order != ZV_LITTLE_ENDIAN && order != ZV_BIG_ENDIAN)
		return B_BAD_VALUE;
	fWireOrder.store(order, std::memory_order_relaxed);
	return B_OK;
}

status_t RemoteEngine::SetQueueLimit(int32 frames)
{
	if (frames < 1)
		return B_BAD_VALUE;
	std::lock_guard<std::mutex> hold(fLock);
	fQueueLimit = frames;
	return B_OK;
}

status_t RemoteEngine::SetLinger(bigtime_t timeout)
{
	if (timeout < 0)
		return B_BAD_VALUE;
	std::lock_guard<std::mutex> hold(fLock);
	fLingerMs = static_cast<int>(std::min<bigtime_t>(timeout / 1000, 0x7FFFFFFF));
	return B_OK;
}

void RemoteEngine::SetReportTarget(const ZvLooperRef& target)
{
	std::lock_guard<std::mutex> hold(fTableLock);
	fReportTarget = target;
}

void RemoteEngine::GetStats(zv_remote_stats* stats) const
{
	stats->framesSent = fStats.framesSent.load(std::memory_order_relaxed);
	stats->framesReceived = fStats.framesReceived.load(std::memory_order_relaxed);
	stats->postsDelivered = fStats.postsDelivered.load(std::memory_order_relaxed);
	stats->requestsAnswered = fStats.requestsAnswered.load(std::memory_order_relaxed);
	stats->repliesReceived = fStats.repliesReceived.load(std::memory_order_relaxed);
	stats->refusedOversized = fStats.refusedOversized.load(std::memory_order_relaxed);
	stats->refusedMalformed = fStats.refusedMalformed.load(std::memory_order_relaxed);
	stats->refusedUnknownTarget = fStats.refusedUnknownTarget.load(std::memory_order_relaxed);
	stats->lateReplies = fStats.lateReplies.load(std::memory_order_relaxed);
	stats->undeliverable = fStats.undeliverable.load(std::memory_order_relaxed);
	stats->connects = fStats.connects.load(std::memory_order_relaxed);
	stats->disconnects = fStats.disconnects.load(std::memory_order_relaxed);
}

// Sending.

status_t RemoteEngine::Post(int32 peer, const char* name, const ZvMessage* message,
                            bigtime_t timeout)
{
	size_t length;
	if (message == nullptr || !ValidName(name, &length) || IsStopped())
		return B_BAD_VALUE;
	return _EnqueueMessage(peer, FrameKind::kPost, 0, 0, name, length, message, timeout);
}

status_t RemoteEngine::Request(int32 peer, const char* name, const ZvMessage* message,
                               ZvMessage* reply, bigtime_t timeout)
{
	size_t length;
	if (message == nullptr || reply == nullptr || !ValidName(name, &length) || IsStopped())
		return B_BAD_VALUE;
	const Clock::time_point deadline = DeadlineAfter(timeout);

	Waiter waiter;
	uint64 request;
	{
		std::lock_guard<std::mutex> hold(fWaitersLock);
		request = ++fNextRequest;
		fWaiters.emplace(request, &waiter);
	}
	const bigtime_t wait = deadline == Clock::time_point::max() ? -1 : timeout;
	status_t status =
	    _EnqueueMessage(peer, FrameKind::kRequest, request, wait, name, length, message, timeout);

	std::unique_lock<std::mutex> hold(fWaitersLock);
	if (status == B_OK) {
		if (deadline == Clock::time_point::max())
			waiter.answered.wait(hold, [&] { return waiter.done; });
		else
			waiter.answered.wait_until(hold, deadline, [&] { return waiter.done; });
		status = waiter.done ? waiter.status : B_TIMED_OUT;
	}
	if (!waiter.done)
		fWaiters.erase(request);
	hold.unlock();
	if (status == B_OK)
		*reply = waiter.reply;
	return status;
}

status_t RemoteEngine::_WaitForRoom(std::unique_lock<std::mutex>& hold, bigtime_t timeout)
{
	if (!fStopping && fOutstanding >= static_cast<size_t>(fQueueLimit)) {
		if (timeout == 0)
			return B_WOULD_BLOCK;
		const Clock::time_point deadline = DeadlineAfter(timeout);
		fRoomWaiters++;
		const auto roomy = [&] {
			return fStopping || fOutstanding < static_cast<size_t>(fQueueLimit);
		};
		bool room = true;
		if (deadline == Clock::time_point::max())
			fRoom.wait(hold, roomy);
		else
			room = fRoom.wait_until(hold, deadline, roomy);
		fRoomWaiters--;
		if (!room)
			return B_TIMED_OUT;
	}
	return fStopping ? B_BAD_VALUE : B_OK;
}

void RemoteEngine::_Queued(std::unique_lock<std::mutex>& hold)
{
	fOutstanding++;
	const bool wake = !fWakePending;
	fWakePending = true;
	hold.unlock();
	if (wake)
		_Wake();
}

status_t RemoteEngine::_Enqueue(Outgoing&& frame)
{
	std::unique_lock<std::mutex> hold(fLock);
	if (fStopping) {
		delete[] frame.data;
		return B_BAD_VALUE;
	}
	fOutbox.push_back(std::move(frame));
	_Queued(hold);
	return B_OK;
}

status_t RemoteEngine::_EnqueueMessage(int32 peer, FrameKind kind, uint64 request, int64 argument,
                                       const char* name, size_t nameLength,
                                       const ZvMessage* message, bigtime_t timeout)
{
	const ssize_t flatSize = message->FlattenedSize();
	if (flatSize < 0)
		return B_BAD_DATA;
	const size_t entry = EntrySize(nameLength, static_cast<size_t>(flatSize));
	const zv_byte_order order = fWireOrder.load(std::memory_order_relaxed);

	std::unique_lock<std::mutex> hold(fLock);
	const status_t status = _WaitForRoom(hold, timeout);
	if (status != B_OK)
		return status;
	// The message joins the batch at the end of the queue when that one is
	// for the same peer and has room; the I/O thread takes the queue whole,
	// so a burst of posts made while it is busy becomes one batch.
	Outgoing* batch = nullptr;
	if (!fOutbox.empty()) {
		Outgoing& last = fOutbox.back();
		if (last.count > 0 && last.peer == peer && last.order == order &&
		    last.count < kMaxBatchFrames && last.size + entry <= kSendBatchBytes)
			batch = &last;
	}
	const bool fresh = batch == nullptr;
	if (fresh) {
		fOutbox.emplace_back();
		batch = &fOutbox.back();
		batch->peer = peer;
		batch->order = order;
		batch->size = kFrameHeaderSize;
	}
	if (batch->size + entry > batch->capacity) {
		// Doubling, from a size that suits one small message; a batch that
		// grows takes a whole spare buffer when there is one.
		size_t capacity =
		    std::max(batch->size + entry,
		             std::min(std::max<size_t>(batch->capacity * 2, 512), kSendBatchBytes));
		uint8* grown;
		if (batch->data != nullptr && !fSpareBuffers.empty() &&
		    batch->size + entry <= kSendBatchBytes) {
			grown = fSpareBuffers.back();
			fSpareBuffers.pop_back();
			capacity = kSendBatchBytes;
		} else {
			grown = new uint8[capacity];
		}
		if (batch->data != nullptr) {
			memcpy(grown, batch->data, batch->size);
			delete[] batch->data;
		}
		batch->data = grown;
		batch->capacity = capacity;
	}
	if (!WriteEntry(batch->data + batch->size, kind, order, request, argument, name, nameLength,
	                message, static_cast<size_t>(flatSize))) {
		if (fresh) {
			delete[] batch->data;
			fOutbox.pop_back();
		}
		return B_BAD_DATA;
	}
	batch->size += entry;
	batch->count++;
	_Queued(hold);
	return B_OK;
}

void RemoteEngine::_Wake()
{
	const uint64 one = 1;
	// A full counter (never in practice) still leaves the descriptor
	// readable, which is all the I/O thread needs.
	[[maybe_unused]] const ssize_t written = write(fWakeFd, &one, sizeof(one));
}

void RemoteEngine::_SendAnswer(const std::string& identity, uint64 request, status_t status,
                               const ZvMessage* reply)
{
	Outgoing frame;
	frame.identity = identity;
	frame.data = BuildFrame(FrameKind::kAnswer, fWireOrder.load(std::memory_order_relaxed), request,
	                        status, nullptr, 0, status == B_OK ? reply : nullptr, &frame.size);
	if (frame.data == nullptr)
		frame.data = BuildFrame(FrameKind::kAnswer, fWireOrder.load(std::memory_order_relaxed),
		                        request, B_BAD_DATA, nullptr, 0, nullptr, &frame.size);
	fStats.requestsAnswered.fetch_add(1, std::memory_order_relaxed);
	_Enqueue(std::move(frame));
}

// The I/O thread.

void RemoteEngine::_Run()
{
	std::deque<Outgoing> batch;
	std::vector<Command*> commands;
	std::vector<zmq_pollitem_t> items;
	for (;;) {
		bool stopping;
		{
			std::lock_guard<std::mutex> hold(fLock);
			batch.swap(fOutbox);
			commands.swap(fCommands);
			fWakePending = false;
			stopping = fStopping;
		}
		if (!commands.empty()) {
			for (Command* command : commands)
				_RunCommand(command);
			{
				std::lock_guard<std::mutex> hold(fLock);
				for (Command* command : commands)
					command->done = true;
			}
			fCommandDone.notify_all();
			commands.clear();
		}
		for (Outgoing& frame : batch) {
			if (frame.peer >= 0 && static_cast<size_t>(frame.peer) < fDealerBacklogs.size())
				fDealerBacklogs[frame.peer].push_back(std::move(frame));
			else if (frame.peer < 0 && fRouter != nullptr)
				fRouterBacklog.push_back(std::move(frame));
			else {
				const size_t frames = FramesIn(frame);
				delete[] frame.data;
				fStats.undeliverable.fetch_add(frames, std::memory_order_relaxed);
				_FrameDone(frames);
			}
		}
		batch.clear();
		if (fRouter != nullptr)
			_Flush(fRouterBacklog, fRouter, true);
		for (size_t i = 0; i < fDealers.size(); i++)
			_Flush(fDealerBacklogs[i], fDealers[i], false);
		if (stopping)
			break;

		items.clear();
		items.push_back({nullptr, fWakeFd, ZMQ_POLLIN, 0});
		if (fRouter != nullptr) {
			items.push_back(
			    {fRouter, 0,
			     static_cast<short>(ZMQ_POLLIN | (fRouterBacklog.empty() ? 0 : ZMQ_POLLOUT)), 0});
		}
		for (size_t i = 0; i < fDealers.size(); i++) {
			items.push_back(
			    {fDealers[i], 0,
			     static_cast<short>(ZMQ_POLLIN | (fDealerBacklogs[i].empty() ? 0 : ZMQ_POLLOUT)),
			     0});
		}
		for (void* monitor : fMonitors)
			items.push_back({monitor, 0, ZMQ_POLLIN, 0});
		if (zmq_poll(items.data(), static_cast<int>(items.size()), -1) < 0 && errno != EINTR)
			break;
		if ((items[0].revents & ZMQ_POLLIN) != 0) {
			uint64 count;
			[[maybe_unused]] const ssize_t got = read(fWakeFd, &count, sizeof(count));
		}
		size_t next = 1;
		if (fRouter != nullptr) {
			if ((items[next].revents & ZMQ_POLLIN) != 0)
				_ReceiveFromRouter();
			next++;
		}
		for (size_t i = 0; i < fDealers.size(); i++, next++) {
			if ((items[next].revents & ZMQ_POLLIN) != 0)
				_ReceiveFromDealer(fDealers[i]);
		}
		for (size_t i = 0; i < fMonitors.size(); i++, next++) {
			if ((items[next].revents & ZMQ_POLLIN) != 0)
				_ReadMonitor(fMonitors[i]);
		}
	}

	// What could not be handed over is lost; ZeroMQ sends the rest within
	// the linger time when the context ends.
	size_t left = 0;
	for (Outgoing& frame : fRouterBacklog) {
		left += FramesIn(frame);
		delete[] frame.data;
	}
	fRouterBacklog.clear();
	for (std::deque<Outgoing>& backlog : fDealerBacklogs) {
		for (Outgoing& frame : backlog) {
			left += FramesIn(frame);
			delete[] frame.data;
		}
		backlog.clear();
	}
	fStats.undeliverable.fetch_add(left, std::memory_order_relaxed);
	if (fRouter != nullptr)
		zmq_close(fRouter);
	for (void* dealer : fDealers)
		zmq_close(dealer);
	for (void* monitor : fMonitors) {
		SetIntOption(monitor, ZMQ_LINGER, 0);
		zmq_close(monitor);
	}
	fRouter = nullptr;
	fDealers.clear();
	fMonitors.clear();
}

void RemoteEngine::_Monitor(void* socket)
{
	// ZeroMQ reports the socket's connections on an inproc PAIR socket.
	const std::string address =
	    "inproc://zvremote-monitor-" + std::to_string(reinterpret_cast<uintptr_t>(socket));
	if (zmq_socket_monitor(socket, address.c_str(),
	                       ZMQ_EVENT_CONNECTED | ZMQ_EVENT_ACCEPTED | ZMQ_EVENT_DISCONNECTED) != 0)
		return;
	void* monitor = zmq_socket(fContext, ZMQ_PAIR);
	if (monitor == nullptr)
		return;
	if (zmq_connect(monitor, address.c_str()) != 0) {
		zmq_close(monitor);
		return;
	}
	fMonitors.push_back(monitor);
}

void RemoteEngine::_ReadMonitor(void* monitor)
{
	for (;;) {
		// Two parts: the event (16 bits) and its value (32 bits), then the
		// peer's address.
		zmq_msg_t event;
		zmq_msg_init(&event);
		if (zmq_msg_recv(&event, monitor, ZMQ_DONTWAIT) < 0) {
			zmq_msg_close(&event);
			return;
		}
		uint16_t code = 0;
		if (zmq_msg_size(&event) >= sizeof(code))
			memcpy(&code, zmq_msg_data(&event), sizeof(code));
		std::string address;
		bool more = zmq_msg_more(&event) != 0;
		zmq_msg_close(&event);
		while (more) {
			zmq_msg_t part;
			zmq_msg_init(&part);
			more = zmq_msg_recv(&part, monitor, 0) >= 0 && zmq_msg_more(&part) != 0;
			address.assign(static_cast<const char*>(zmq_msg_data(&part)), zmq_msg_size(&part));
			zmq_msg_close(&part);
		}
		const bool up = code == ZMQ_EVENT_CONNECTED || code == ZMQ_EVENT_ACCEPTED;
		if (!up && code != ZMQ_EVENT_DISCONNECTED)
			continue;
		(up ? fStats.connects : fStats.disconnects).fetch_add(1, std::memory_order_relaxed);
		ZvLooperRef report;
		{
			std::lock_guard<std::mutex> hold(fTableLock);
			report = fReportTarget;
		}
		if (report.IsValid()) {
			ZvMessage notice(up ? ZV_REMOTE_CONNECTED : ZV_REMOTE_DISCONNECTED);
			notice.AddString("address", address.c_str());
			report.PostMessage(&notice, 0);
		}
	}
}

void RemoteEngine::_RunCommand(Command* command)
{
	int linger;
	{
		std::lock_guard<std::mutex> hold(fLock);
		linger = fLingerMs;
	}
	if (command->bind) {
		if (fRouter == nullptr) {
			fRouter = zmq_socket(fContext, ZMQ_ROUTER);
			if (fRouter == nullptr) {
				command->result = B_ERROR;
				return;
			}
			SetIntOption(fRouter, ZMQ_ROUTER_MANDATORY, 1);
			SetIntOption(fRouter, ZMQ_SNDHWM, kHighWaterMark);
			SetIntOption(fRouter, ZMQ_RCVHWM, kHighWaterMark);
			SetIntOption(fRouter, ZMQ_LINGER, linger);
			const size_t limit = MaxFrameSize();
			const int64_t cap = static_cast<int64_t>(std::max(limit * 2, limit + 65536));
			zmq_setsockopt(fRouter, ZMQ_MAXMSGSIZE, &cap, sizeof(cap));
			_Monitor(fRouter);
		}
		command->result =
		    zmq_bind(fRouter, command->address.c_str()) == 0 ? B_OK : StatusOfZmqError(errno);
		return;
	}
	void* dealer = zmq_socket(fContext, ZMQ_DEALER);
	if (dealer == nullptr) {
		command->result = B_ERROR;
		return;
	}
	SetIntOption(dealer, ZMQ_SNDHWM, kHighWaterMark);
	SetIntOption(dealer, ZMQ_RCVHWM, kHighWaterMark);
	SetIntOption(dealer, ZMQ_LINGER, linger);
	if (zmq_connect(dealer, command->address.c_str()) != 0) {
		command->result = StatusOfZmqError(errno);
		zmq_close(dealer);
		return;
	}
	_Monitor(dealer);
	command->peer = static_cast<int32>(fDealers.size());
	fDealers.push_back(dealer);
	fDealerBacklogs.emplace_back();
	command->result = B_OK;
}

void RemoteEngine::_Flush(std::deque<Outgoing>& backlog, void* socket, bool router)
{
	size_t handled = 0;
	while (!backlog.empty()) {
		Outgoing& first = backlog.front();
		// Batches that waited for the same DEALER (ZeroMQ's queue was full)
		// go on as one.
		size_t take = 1;
		size_t frames = FramesIn(first);
		if (!router) {
			size_t size = first.size;
			while (take < backlog.size() && backlog[take].order == first.order &&
			       frames + backlog[take].count <= kMaxBatchFrames &&
			       size + backlog[take].size - kFrameHeaderSize <= kSendBatchBytes) {
				size += backlog[take].size - kFrameHeaderSize;
				frames += backlog[take].count;
				take++;
			}
		}
		int sent;
		if (router) {
			sent = zmq_send(socket, first.identity.data(), first.identity.size(),
			                ZMQ_DONTWAIT | ZMQ_SNDMORE);
			if (sent >= 0)
				sent = zmq_send(socket, first.data, first.size, ZMQ_DONTWAIT);
		} else if (take > 1) {
			sent = _SendMerged(backlog, take, frames, socket);
		} else if (first.count == 1) {
			// One frame goes alone, without the batch around it.
			const size_t skip = kFrameHeaderSize + kBatchEntryHeader;
			sent = zmq_send(socket, first.data + skip, first.size - skip, ZMQ_DONTWAIT);
		} else {
			WriteBatchHeader(first.data, first.order, first.count);
			sent = zmq_send(socket, first.data, first.size, ZMQ_DONTWAIT);
		}
		if (sent < 0) {
			if (errno == EAGAIN || errno == EINTR)
				break;
			// The connection the answer was for is gone.
			fStats.undeliverable.fetch_add(frames, std::memory_order_relaxed);
		} else {
			fStats.framesSent.fetch_add(frames, std::memory_order_relaxed);
		}
		for (size_t i = 0; i < take; i++) {
			Outgoing& done = backlog.front();
			if (done.capacity == kSendBatchBytes)
				fRecycle.push_back(done.data);
			else
				delete[] done.data;
			backlog.pop_front();
		}
		handled += frames;
	}
	_FrameDone(handled);
}

int RemoteEngine::_SendMerged(const std::deque<Outgoing>& backlog, size_t take, size_t frames,
                              void* socket)
{
	size_t size = kFrameHeaderSize;
	for (size_t i = 0; i < take; i++)
		size += backlog[i].size - kFrameHeaderSize;
	uint8* merged = new uint8[size];
	WriteBatchHeader(merged, backlog.front().order, frames);
	uint8* at = merged + kFrameHeaderSize;
	for (size_t i = 0; i < take; i++) {
		const size_t entries = backlog[i].size - kFrameHeaderSize;
		memcpy(at, backlog[i].data + kFrameHeaderSize, entries);
		at += entries;
	}
	// ZeroMQ takes the block as it is and frees it once it was written.
	zmq_msg_t message;
	if (zmq_msg_init_data(&message, merged, size, FreeBlock, nullptr) != 0) {
		delete[] merged;
		return -1;
	}
	const int sent = zmq_msg_send(&message, socket, ZMQ_DONTWAIT);
	if (sent < 0) {
		const int error = errno;
		zmq_msg_close(&message);
		errno = error;
	}
	return sent;
}

void RemoteEngine::_FrameDone(size_t count)
{
	if (count == 0)
		return;
	bool notify;
	{
		std::lock_guard<std::mutex> hold(fLock);
		fOutstanding -= count;
		notify = fRoomWaiters > 0;
		// Whole batch buffers are kept for the next bursts: a buffer of
		// 64 KiB given back to the system and taken again costs a page
		// fault per page.
		while (!fRecycle.empty() && fSpareBuffers.size() < kSpareBuffers) {
			fSpareBuffers.push_back(fRecycle.back());
			fRecycle.pop_back();
		}
	}
	for (uint8* buffer : fRecycle)
		delete[] buffer;
	fRecycle.clear();
	if (notify)
		fRoom.notify_all();
}

void RemoteEngine::_ReceiveFromRouter()
{
	zmq_msg_t identity;
	zmq_msg_t body;
	for (int i = 0; i < kReceiveBatch; i++) {
		zmq_msg_init(&identity);
		if (zmq_msg_recv(&identity, fRouter, ZMQ_DONTWAIT) < 0) {
			zmq_msg_close(&identity);
			return;
		}
		zmq_msg_init(&body);
		bool whole = zmq_msg_more(&identity) != 0 && zmq_msg_recv(&body, fRouter, 0) >= 0;
		// A frame sent in several parts is not ours: the rest is read and
		// dropped with it.
		bool extra = false;
		bool more = whole && zmq_msg_more(&body) != 0;
		while (more) {
			extra = true;
			zmq_msg_t rest;
			zmq_msg_init(&rest);
			more = zmq_msg_recv(&rest, fRouter, 0) >= 0 && zmq_msg_more(&rest) != 0;
			zmq_msg_close(&rest);
		}
		if (!whole || extra) {
			fStats.framesReceived.fetch_add(1, std::memory_order_relaxed);
			_Refuse(fStats.refusedMalformed, "malformed", zmq_msg_size(&body), nullptr);
		} else {
			const std::string from(static_cast<const char*>(zmq_msg_data(&identity)),
			                       zmq_msg_size(&identity));
			_HandleIncoming(&from, static_cast<const uint8*>(zmq_msg_data(&body)),
			                zmq_msg_size(&body));
		}
		zmq_msg_close(&body);
		zmq_msg_close(&identity);
	}
}

void RemoteEngine::_ReceiveFromDealer(void* socket)
{
	zmq_msg_t body;
	for (int i = 0; i < kReceiveBatch; i++) {
		zmq_msg_init(&body);
		if (zmq_msg_recv(&body, socket, ZMQ_DONTWAIT) < 0) {
			zmq_msg_close(&body);
			return;
		}
		bool extra = false;
		bool more = zmq_msg_more(&body) != 0;
		while (more) {
			extra = true;
			zmq_msg_t rest;
			zmq_msg_init(&rest);
			more = zmq_msg_recv(&rest, socket, 0) >= 0 && zmq_msg_more(&rest) != 0;
			zmq_msg_close(&rest);
		}
		if (extra) {
			fStats.framesReceived.fetch_add(1, std::memory_order_relaxed);
			_Refuse(fStats.refusedMalformed, "malformed", zmq_msg_size(&body), nullptr);
		} else
			_HandleIncoming(nullptr, static_cast<const uint8*>(zmq_msg_data(&body)),
			                zmq_msg_size(&body));
		zmq_msg_close(&body);
	}
}

void RemoteEngine::_HandleIncoming(const std::string* identity, const uint8* data, size_t size)
{
	FrameHeader header;
	if (identity == nullptr || !ReadFrameHeader(data, size, &header) ||
	    header.kind != FrameKind::kBatch) {
		TargetCache cache;
		_HandleFrame(identity, data, size, &cache);
		return;
	}
	// A batch that is not well formed is refused whole, as one frame; in a
	// well-formed one each frame counts, and is checked, on its own.
	if (!SplitBatch(header, &fBatchFrames)) {
		fStats.framesReceived.fetch_add(1, std::memory_order_relaxed);
		if (size > kMaxBatchBytes)
			_Refuse(fStats.refusedOversized, "oversized", size, nullptr);
		else
			_Refuse(fStats.refusedMalformed, "malformed", size, nullptr);
		return;
	}
	TargetCache cache;
	for (const FrameSpan& frame : fBatchFrames)
		_HandleFrame(identity, frame.data, frame.size, &cache);
}

void RemoteEngine::_HandleFrame(const std::string* identity, const uint8* data, size_t size,
                                TargetCache* cache)
{
	fStats.framesReceived.fetch_add(1, std::memory_order_relaxed);
	FrameHeader header;
	const bool readable = ReadFrameHeader(data, size, &header);
	const bool isRequest = readable && header.kind == FrameKind::kRequest;
	if (size > MaxFrameSize()) {
		_Refuse(fStats.refusedOversized, "oversized", size, readable ? &header : nullptr);
		if (isRequest && identity != nullptr)
			_SendAnswer(*identity, header.request, B_BAD_DATA, nullptr);
		return;
	}
	// Posts and requests come in through the ROUTER, alone or in batches
	// (never nested), answers through a DEALER; anything else is as
	// malformed as a bad header.
	const bool expected = readable && (identity != nullptr ? header.kind == FrameKind::kPost ||
	                                                             header.kind == FrameKind::kRequest
	                                                       : header.kind == FrameKind::kAnswer);
	if (!expected) {
		_Refuse(fStats.refusedMalformed, "malformed", size, readable ? &header : nullptr);
		return;
	}
	if (identity == nullptr) {
		_HandleAnswer(header);
		return;
	}

	const ZvLooperRef* found = _FindTarget(header, cache);
	if (found == nullptr) {
		_Refuse(fStats.refusedUnknownTarget, "unknown target", size, &header);
		if (isRequest)
			_SendAnswer(*identity, header.request, B_BAD_VALUE, nullptr);
		return;
	}
	const ZvLooperRef& target = *found;
	// The message is read into one of its own, which the looper (a post)
	// or a helper (a request) takes over. The bounded reader checks the
	// block; the block must also be all of the frame's remaining bytes.
	ZvMessage* message = new ZvMessage(static_cast<uint32>(0));
	if (message->Unflatten(header.body, header.bodySize, header.order) != B_OK ||
	    static_cast<size_t>(message->FlattenedSize()) != header.bodySize) {
		delete message;
		_Refuse(fStats.refusedMalformed, "malformed", size, &header);
		if (isRequest)
			_SendAnswer(*identity, header.request, B_BAD_DATA, nullptr);
		return;
	}

	if (isRequest) {
		Job job;
		job.identity = *identity;
		job.request = header.request;
		job.target = target;
		job.message = message;
		job.timeout = header.argument < 0 ? B_INFINITE_TIMEOUT : header.argument;
		{
			std::lock_guard<std::mutex> hold(fJobLock);
			if (!fJobsClosed) {
				if (fHelpers.empty()) {
					for (int i = 0; i < kHelpers; i++)
						fHelpers.emplace_back(&RemoteEngine::_Serve, this);
				}
				fJobs.push_back(std::move(job));
				job.message = nullptr;
			}
		}
		if (job.message == nullptr) {
			fJobReady.notify_one();
		} else {
			// The endpoint is closing.
			delete job.message;
			_SendAnswer(*identity, header.request, B_BAD_VALUE, nullptr);
		}
		return;
	}

	// A full queue holds the I/O thread up: the sockets' own queues then
	// fill and the senders wait, rather than anything being dropped.
	status_t status;
	for (;;) {
		status = target.PostOwnedMessage(message, kDeliverySlice);
		if (status != B_TIMED_OUT || IsStopped())
			break;
		// The refused post took the message with it: read it again.
		message = new ZvMessage(static_cast<uint32>(0));
		message->Unflatten(header.body, header.bodySize, header.order);
	}
	if (status == B_OK)
		fStats.postsDelivered.fetch_add(1, std::memory_order_relaxed);
	else if (status == B_BAD_VALUE)
		_Refuse(fStats.refusedUnknownTarget, "unknown target", size, &header);
	else
		fStats.undeliverable.fetch_add(1, std::memory_order_relaxed);
}

void RemoteEngine::_HandleAnswer(const FrameHeader& header)
{
	ZvMessage reply(static_cast<uint32>(0));
	status_t status = static_cast<status_t>(header.argument);
	if (status == B_OK && (reply.Unflatten(header.body, header.bodySize, header.order) != B_OK ||
	                       static_cast<size_t>(reply.FlattenedSize()) != header.bodySize)) {
		_Refuse(fStats.refusedMalformed, "malformed", kFrameHeaderSize + header.bodySize, &header);
		status = B_BAD_DATA;
	}
	std::lock_guard<std::mutex> hold(fWaitersLock);
	const auto found = fWaiters.find(header.request);
	if (found == fWaiters.end()) {
		fStats.lateReplies.fetch_add(1, std::memory_order_relaxed);
		return;
	}
	Waiter* waiter = found->second;
	fWaiters.erase(found);
	waiter->status = status;
	if (status == B_OK)
		waiter->reply = reply;
	waiter->done = true;
	fStats.repliesReceived.fetch_add(1, std::memory_order_relaxed);
	waiter->answered.notify_all();
}

const ZvLooperRef* RemoteEngine::_FindTarget(const FrameHeader& header, TargetCache* cache)
{
	const std::string_view name(header.name, header.nameLength);
	if (cache->found && cache->name == name)
		return &cache->target;
	std::lock_guard<std::mutex> hold(fTableLock);
	const auto found = fPublished.find(name);
	if (found == fPublished.end())
		return nullptr;
	cache->found = true;
	cache->name = found->first;
	cache->target = found->second;
	return &cache->target;
}

void RemoteEngine::_Refuse(std::atomic<uint64>& counter, const char* reason, size_t size,
                           const FrameHeader* header)
{
	counter.fetch_add(1, std::memory_order_relaxed);
	ZvLooperRef report;
	{
		std::lock_guard<std::mutex> hold(fTableLock);
		report = fReportTarget;
	}
	if (!report.IsValid())
		return;
	ZvMessage notice(ZV_REMOTE_REFUSED);
	notice.AddString("reason", reason);
	notice.AddInt64("size", static_cast<int64>(size));
	if (header != nullptr && header->nameLength > 0)
		notice.AddString("name", std::string(header->name, header->nameLength).c_str());
	report.PostMessage(&notice, 0);
}

// The request helpers.

void RemoteEngine::_Serve()
{
	for (;;) {
		Job job;
		{
			std::unique_lock<std::mutex> hold(fJobLock);
			fJobReady.wait(hold, [&] { return fJobsClosed || !fJobs.empty(); });
			if (fJobs.empty())
				return;
			job = std::move(fJobs.front());
			fJobs.pop_front();
		}
		ZvMessage reply(static_cast<uint32>(0));
		const status_t status = job.target.SendMessage(job.message, &reply, job.timeout);
		delete job.message;
		_SendAnswer(job.identity, job.request, status, &reply);
	}
}

} // namespace internal
} // namespace zvkit
