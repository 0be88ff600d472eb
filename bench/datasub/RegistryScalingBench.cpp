// Registry cost per operation as the number of attributes grows, 10 to
// 50,000: subscribing a new attribute, setting it, and unsubscribing it,
// while the others stay; and subscribing to, setting and leaving an attribute
// that already exists among them. The per_op counter gives the time of one
// such cycle.
//
// Every attribute owns a kernel semaphore, and the platform's semaphore table
// holds 65,536: 50,000 attributes is the largest size of ten thousands that
// fits. A case whose attributes cannot all be made stops with an error
// rather than timing subscriptions that fail.
#include <ZvDataSubscriber.h>

#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

namespace {

std::vector<std::unique_ptr<ZvDataSubscriber>> MakeAttributes(int count)
{
	std::vector<std::unique_ptr<ZvDataSubscriber>> subscribers;
	subscribers.reserve(static_cast<size_t>(count));
	for (int i = 0; i < count; i++) {
		const std::string name = "attr" + std::to_string(i);
		subscribers.push_back(std::make_unique<ZvDataSubscriber>(name.c_str(), 0));
	}
	return subscribers;
}

void Sizes(benchmark::internal::Benchmark* benchmark)
{
	for (int64_t size : {10, 100, 1000, 10000, 50000})
		benchmark->Arg(size);
}

// Whether every subscriber got its attribute; skips the case when not.
bool AllSubscribed(benchmark::State& state,
                   const std::vector<std::unique_ptr<ZvDataSubscriber>>& subscribers)
{
	for (const auto& subscriber : subscribers) {
		if (!subscriber->DS_IsSubscribed()) {
			state.SkipWithError("an attribute could not be made (semaphore table full?)");
			return false;
		}
	}
	return true;
}

// Removes the attributes newest first.
void RemoveAttributes(std::vector<std::unique_ptr<ZvDataSubscriber>>* subscribers)
{
	while (!subscribers->empty())
		subscribers->pop_back();
}

void PerOp(benchmark::State& state)
{
	state.counters["per_op"] = benchmark::Counter(1, benchmark::Counter::kIsIterationInvariantRate |
	                                                     benchmark::Counter::kInvert);
}

// A new attribute: subscribe (creates it), set an integer, unsubscribe
// (removes it).
void NewAttributeCycle(benchmark::State& state)
{
	auto others = MakeAttributes(static_cast<int>(state.range(0)));
	if (!AllSubscribed(state, others))
		return;
	int64 value = 0;
	for (auto _ : state) {
		ZvDataSubscriber subscriber("fresh-attribute", 0);
		subscriber.DS_SetIntegerData(++value, true);
	}
	PerOp(state);
	RemoveAttributes(&others);
}
BENCHMARK(NewAttributeCycle)->Name("Scale/SubscribeSetUnsubscribeNew")->Apply(Sizes);

// An existing attribute in the middle of the list: join its chain (pulling
// its data), set an integer that reaches its first subscriber, leave.
void ExistingAttributeCycle(benchmark::State& state)
{
	const int count = static_cast<int>(state.range(0));
	auto others = MakeAttributes(count);
	if (!AllSubscribed(state, others))
		return;
	const std::string name = "attr" + std::to_string(count / 2);
	int64 value = 0;
	for (auto _ : state) {
		ZvDataSubscriber subscriber(name.c_str(), 0);
		subscriber.DS_SetIntegerData(++value, true);
	}
	PerOp(state);
	RemoveAttributes(&others);
}
BENCHMARK(ExistingAttributeCycle)->Name("Scale/SubscribeSetUnsubscribeExisting")->Apply(Sizes);

} // namespace
