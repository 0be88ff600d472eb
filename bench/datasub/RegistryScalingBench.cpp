// Registry cost per operation as the number of attributes grows, 10 to
// 100,000: subscribing a new attribute, setting it, and unsubscribing it,
// while the others stay; and subscribing to, setting and leaving an attribute
// that already exists among them. The per_op counter gives the time of one
// such cycle.
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
	int64 value = 0;
	for (auto _ : state) {
		ZvDataSubscriber subscriber("fresh-attribute", 0);
		subscriber.DS_SetIntegerData(++value, true);
	}
	PerOp(state);
}
BENCHMARK(NewAttributeCycle)
    ->Name("Scale/SubscribeSetUnsubscribeNew")
    ->RangeMultiplier(10)
    ->Range(10, 100000);

// An existing attribute in the middle of the list: join its chain (pulling
// its data), set an integer that reaches its first subscriber, leave.
void ExistingAttributeCycle(benchmark::State& state)
{
	const int count = static_cast<int>(state.range(0));
	auto others = MakeAttributes(count);
	const std::string name = "attr" + std::to_string(count / 2);
	int64 value = 0;
	for (auto _ : state) {
		ZvDataSubscriber subscriber(name.c_str(), 0);
		subscriber.DS_SetIntegerData(++value, true);
	}
	PerOp(state);
}
BENCHMARK(ExistingAttributeCycle)
    ->Name("Scale/SubscribeSetUnsubscribeExisting")
    ->RangeMultiplier(10)
    ->Range(10, 100000);

} // namespace
