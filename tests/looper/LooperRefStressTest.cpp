// Concurrency test of refs: four threads post and send requests through
// refs while 1,000 loopers are created, run and ended (by Quit and by "QUIT"
// messages) under their feet. Every message is accounted for: each post is
// either refused or received, each request either refused or answered.
// Bounded by a watchdog; the same counts run under the sanitizers.

#include <ZvHandler.h>
#include <ZvLooper.h>
#include <ZvLooperRef.h>
#include <ZvMessage.h>

#include <ZvMessenger.h>

#include "LooperTestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;

constexpr uint32 kPost = 0x504F5354;    // 'POST'
constexpr uint32 kRequest = 0x52455155; // 'REQU'
constexpr uint32 kAnswer = 0x414E5352;  // 'ANSR'

struct Totals
{
	std::atomic<int64_t> postsReceived{0};
	std::atomic<int64_t> requestsReceived{0};
	zvtest::Latch* loopersGone = nullptr;
};

// Counts what it receives and answers requests. A looper ends with
// messages still queued (posted after its "QUIT", or while Quit ran): its
// destructor, which runs in its thread once no post is under way any more,
// hands them out as the loop would, so that none is lost from the counts.
class CountingLooper : public ZvLooper
{
public:
	explicit CountingLooper(Totals* totals)
	    : ZvLooper("counting", ZV_NORMAL_PRIORITY, 8), fTotals(totals)
	{
	}
	~CountingLooper() override
	{
		while (ProcessNextMessage()) {
		}
		fTotals->loopersGone->CountDown();
	}
	void MessageReceived(ZvMessage* message) override
	{
		if (message->what == kPost) {
			fTotals->postsReceived.fetch_add(1);
		} else if (message->what == kRequest) {
			fTotals->requestsReceived.fetch_add(1);
			ZvMessage answer(kAnswer);
			message->SendReply(&answer);
		}
	}

private:
	Totals* fTotals;
};

// The refs the workers use: a few slots, replaced as loopers come and go.
class Targets
{
public:
	explicit Targets(size_t count) : fRefs(count) {}
	ZvLooperRef Pick(uint32 seed)
	{
		std::lock_guard<std::mutex> hold(fLock);
		return fRefs[seed % fRefs.size()];
	}
	void Set(size_t slot, const ZvLooperRef& ref)
	{
		std::lock_guard<std::mutex> hold(fLock);
		fRefs[slot] = ref;
	}
	size_t Count() const { return fRefs.size(); }

private:
	std::mutex fLock;
	std::vector<ZvLooperRef> fRefs;
};

struct WorkerCounts
{
	int64_t postsAccepted = 0;
	int64_t postsRefused = 0;
	int64_t answered = 0;
	int64_t noReply = 0;
	int64_t requestsRefused = 0;
	int64_t unexpected = 0;
};

TEST(LooperRefStressTest, PostsAndRequestsThroughRefsWhileLoopersComeAndGoAreAllAccountedFor)
{
	zvtest::Watchdog watchdog(280s, "refs while loopers come and go");
	constexpr int kLoopers = 1000;
	constexpr int kWorkers = 4;
	zvtest::Latch gone(kLoopers);
	Totals totals;
	totals.loopersGone = &gone;
	Targets targets(6);
	std::atomic<bool> creating{true};
	std::vector<WorkerCounts> counts(kWorkers);

	std::vector<std::thread> workers;
	for (int w = 0; w < kWorkers; w++) {
		workers.emplace_back([&, w] {
			WorkerCounts& mine = counts[static_cast<size_t>(w)];
			uint32 seed = static_cast<uint32>(w) * 7919u;
			while (creating.load(std::memory_order_relaxed)) {
				seed = seed * 1103515245u + 12345u;
				const ZvLooperRef ref = targets.Pick(seed >> 8);
				if ((seed >> 4) % 3 == 0) {
					ZvMessage reply(0);
					const status_t status = ref.SendMessage(kRequest, &reply);
					if (status == B_OK && reply.what == kAnswer)
						mine.answered++;
					else if (status == B_OK && reply.what == ZV_NO_REPLY)
						mine.noReply++;
					else if (status == B_BAD_VALUE)
						mine.requestsRefused++;
					else
						mine.unexpected++;
				} else {
					const status_t status = ref.PostMessage(kPost);
					if (status == B_OK)
						mine.postsAccepted++;
					else if (status == B_BAD_VALUE)
						mine.postsRefused++;
					else
						mine.unexpected++;
				}
			}
		});
	}

	// Creates, runs and ends the loopers, a few alive at a time; every
	// other one ends through a "QUIT" message, the rest through Quit.
	std::vector<CountingLooper*> alive(targets.Count(), nullptr);
	for (int i = 0; i < kLoopers; i++) {
		const size_t slot = static_cast<size_t>(i) % targets.Count();
		if (CountingLooper* old = alive[slot]) {
			if (i % 2 == 0)
				old->Quit();
			else
				ASSERT_EQ(ZvLooperRef(old).PostMessage(ZV_QUIT_REQUESTED), B_OK);
		}
		auto* looper = new CountingLooper(&totals);
		ASSERT_TRUE(looper->Run());
		alive[slot] = looper;
		targets.Set(slot, ZvLooperRef(looper));
	}
	for (size_t slot = 0; slot < alive.size(); slot++)
		alive[slot]->Quit();
	creating.store(false);
	for (std::thread& worker : workers)
		worker.join();

	// Loopers ended through "QUIT" delete themselves in their own time.
	ASSERT_TRUE(gone.WaitFor(60s));

	WorkerCounts sum;
	for (const WorkerCounts& c : counts) {
		sum.postsAccepted += c.postsAccepted;
		sum.postsRefused += c.postsRefused;
		sum.answered += c.answered;
		sum.noReply += c.noReply;
		sum.requestsRefused += c.requestsRefused;
		sum.unexpected += c.unexpected;
	}
	EXPECT_EQ(sum.unexpected, 0);
	EXPECT_EQ(totals.postsReceived.load(), sum.postsAccepted);
	EXPECT_EQ(totals.requestsReceived.load(), sum.answered);
	// Every request that was queued was handed out, so answered.
	EXPECT_EQ(sum.noReply, 0);
	EXPECT_GT(sum.postsAccepted, 0);
	EXPECT_GT(sum.answered, 0);
	std::printf("posts %lld accepted, %lld refused; requests %lld answered, %lld refused\n",
	            static_cast<long long>(sum.postsAccepted), static_cast<long long>(sum.postsRefused),
	            static_cast<long long>(sum.answered), static_cast<long long>(sum.requestsRefused));
}

} // namespace
