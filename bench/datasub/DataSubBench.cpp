// Benchmarks of data subscription against a minimal host equivalent: a value
// shared by N observers under one std::mutex, each with a virtual change
// hook, which is what an application would write without the library.
#include <ZvDataSubscriber.h>

#include <memory>
#include <mutex>
#include <vector>

#include <benchmark/benchmark.h>

namespace {

// The peer: one mutex per attribute, observers in a vector.
class Observer
{
public:
	virtual ~Observer() = default;
	virtual void Changed(uint32) {}
	int64 value = 0;
};

class Attribute
{
public:
	void Set(Observer* from, int64 value, bool notify)
	{
		std::lock_guard<std::mutex> guard(fLock);
		from->value = value;
		for (Observer* observer : fObservers) {
			if (observer == from)
				continue;
			observer->value = value;
			if (notify)
				observer->Changed(1);
		}
	}

	int64 Get(const Observer* observer)
	{
		std::lock_guard<std::mutex> guard(fLock);
		return observer->value;
	}

	void Add(Observer* observer) { fObservers.push_back(observer); }

private:
	std::mutex fLock;
	std::vector<Observer*> fObservers;
};

// Setting an integer that reaches range(0) - 1 other subscribers.
void SetIntegerZvkit(benchmark::State& state)
{
	std::vector<std::unique_ptr<ZvDataSubscriber>> subscribers;
	for (int64 i = 0; i < state.range(0); i++)
		subscribers.push_back(std::make_unique<ZvDataSubscriber>("bench", 0));
	int64 value = 0;
	for (auto _ : state)
		subscribers[0]->DS_SetIntegerData(++value, true);
	benchmark::DoNotOptimize(subscribers.back()->DS_IntegerData());
}

void SetIntegerStdMutex(benchmark::State& state)
{
	Attribute attribute;
	std::vector<std::unique_ptr<Observer>> observers;
	for (int64 i = 0; i < state.range(0); i++) {
		observers.push_back(std::make_unique<Observer>());
		attribute.Add(observers.back().get());
	}
	int64 value = 0;
	for (auto _ : state)
		attribute.Set(observers[0].get(), ++value, true);
	benchmark::DoNotOptimize(attribute.Get(observers.back().get()));
}

// Reading the value of a subscribed subscriber (locked path).
void GetIntegerZvkit(benchmark::State& state)
{
	ZvDataSubscriber a("bench-get", 0);
	ZvDataSubscriber b("bench-get", 0);
	a.DS_SetIntegerData(5, false);
	for (auto _ : state)
		benchmark::DoNotOptimize(b.DS_IntegerData());
}

void GetIntegerStdMutex(benchmark::State& state)
{
	Attribute attribute;
	Observer a;
	Observer b;
	attribute.Add(&a);
	attribute.Add(&b);
	attribute.Set(&a, 5, false);
	for (auto _ : state)
		benchmark::DoNotOptimize(attribute.Get(&b));
}

} // namespace

BENCHMARK(SetIntegerZvkit)->Name("SetInteger:zvkit")->Arg(2)->Arg(16)->Arg(128);
BENCHMARK(SetIntegerStdMutex)->Name("SetInteger:stdmutex")->Arg(2)->Arg(16)->Arg(128);
BENCHMARK(GetIntegerZvkit)->Name("GetInteger:zvkit");
BENCHMARK(GetIntegerStdMutex)->Name("GetInteger:stdmutex");

BENCHMARK_MAIN();
