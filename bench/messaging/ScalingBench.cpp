// Message cost per operation as messages grow, at 10 to 100,000 items:
// finding a field by name among distinct names, finding the n-th value of one
// name, adding, removing the last and the first value, flattening and
// unflattening. Each case reports its time per operation in the per_op
// counter, so sizes compare directly.
//
// Beside them run peers of the same size that do only what no layout can
// avoid, so that growth that comes from the memory hierarchy (data that no
// longer fits the caches) shows as growth of the peer too:
//  - Scale/Peer/HashFind: a std::unordered_map<std::string, int32> lookup;
//  - Scale/Peer/HashAddAndFind: building that map, one insert and one find
//    per name;
//  - Scale/Peer/RemoveFirstAndAdd: erasing the first of count pointers of a
//    std::vector (a move of every later pointer) and appending one;
//  - Scale/Peer/AllocateItems: allocating count item-sized blocks, writing
//    a name and a value into each, and freeing them (per block).
#include <ZvMessage.h>

#include <benchmark/benchmark.h>

#include <string.h>

#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

const std::vector<std::string>& Names(int count)
{
	static std::vector<std::string> sNames;
	while (static_cast<int>(sNames.size()) < count)
		sNames.push_back("field" + std::to_string(sNames.size()));
	return sNames;
}

void PerOp(benchmark::State& state, int64_t operationsPerIteration)
{
	state.counters["per_op"] = benchmark::Counter(static_cast<double>(operationsPerIteration),
	                                              benchmark::Counter::kIsIterationInvariantRate |
	                                                  benchmark::Counter::kInvert);
}

void FillDistinct(ZvMessage* message, int count)
{
	const std::vector<std::string>& names = Names(count);
	for (int i = 0; i < count; i++)
		message->AddInt32(names[i].c_str(), i);
}

// One FindInt32 of a field among count distinct names, names taken in turn.
void FindByName(benchmark::State& state)
{
	const int count = static_cast<int>(state.range(0));
	ZvMessage message(0);
	FillDistinct(&message, count);
	const std::vector<std::string>& names = Names(count);
	int next = 0;
	int32 value = 0;
	for (auto _ : state) {
		message.FindInt32(names[next].c_str(), &value);
		benchmark::DoNotOptimize(value);
		if (++next == count)
			next = 0;
	}
	PerOp(state, 1);
}
BENCHMARK(FindByName)->Name("Scale/FindByName")->RangeMultiplier(10)->Range(10, 100000);

// One FindInt32 of the n-th of count values of one name, n taken in turn.
void FindByIndex(benchmark::State& state)
{
	const int count = static_cast<int>(state.range(0));
	ZvMessage message(0);
	for (int i = 0; i < count; i++)
		message.AddInt32("list", i);
	int32 next = 0;
	int32 value = 0;
	for (auto _ : state) {
		message.FindInt32("list", next, &value);
		benchmark::DoNotOptimize(value);
		if (++next == count)
			next = 0;
	}
	PerOp(state, 1);
}
BENCHMARK(FindByIndex)->Name("Scale/FindByIndex")->RangeMultiplier(10)->Range(10, 100000);

// Building a message of count distinct fields, each looked up once after it
// is added: per add and lookup.
void AddAndFind(benchmark::State& state)
{
	const int count = static_cast<int>(state.range(0));
	const std::vector<std::string>& names = Names(count);
	for (auto _ : state) {
		ZvMessage message(0);
		int32 value = 0;
		for (int i = 0; i < count; i++) {
			message.AddInt32(names[i].c_str(), i);
			message.FindInt32(names[i].c_str(), &value);
		}
		benchmark::DoNotOptimize(value);
	}
	PerOp(state, count);
}
BENCHMARK(AddAndFind)->Name("Scale/AddAndFind")->RangeMultiplier(10)->Range(10, 100000);

// Removing the last value of a name of count values, and adding it back.
void RemoveLast(benchmark::State& state)
{
	const int count = static_cast<int>(state.range(0));
	ZvMessage message(0);
	for (int i = 0; i < count; i++)
		message.AddInt32("list", i);
	for (auto _ : state) {
		message.RemoveData("list", count - 1);
		message.AddInt32("list", count - 1);
	}
	PerOp(state, 1);
}
BENCHMARK(RemoveLast)->Name("Scale/RemoveLastAndAdd")->RangeMultiplier(10)->Range(10, 100000);

// Removing a field among count distinct names by name, and adding it back
// (it then is the last item).
void RemoveByName(benchmark::State& state)
{
	const int count = static_cast<int>(state.range(0));
	ZvMessage message(0);
	FillDistinct(&message, count);
	const std::vector<std::string>& names = Names(count);
	for (auto _ : state) {
		message.RemoveName(names[count - 1].c_str());
		message.AddInt32(names[count - 1].c_str(), 0);
	}
	PerOp(state, 1);
}
BENCHMARK(RemoveByName)->Name("Scale/RemoveNameAndAdd")->RangeMultiplier(10)->Range(10, 100000);

// Removing the first of count items: every later item moves down one slot.
void RemoveFirst(benchmark::State& state)
{
	const int count = static_cast<int>(state.range(0));
	ZvMessage message(0);
	FillDistinct(&message, count);
	const std::vector<std::string>& names = Names(count);
	int next = 0;
	for (auto _ : state) {
		message.RemoveData(names[next].c_str(), 0);
		message.AddInt32(names[next].c_str(), 0);
		if (++next == count)
			next = 0;
	}
	PerOp(state, 1);
}
BENCHMARK(RemoveFirst)->Name("Scale/RemoveFirstAndAdd")->RangeMultiplier(10)->Range(10, 100000);

// Flattening a message of count fields: per field.
void Flatten(benchmark::State& state)
{
	const int count = static_cast<int>(state.range(0));
	ZvMessage message(0);
	FillDistinct(&message, count);
	std::vector<uint8> buffer(message.FlattenedSize());
	for (auto _ : state) {
		int32 written = 0;
		message.Flatten(buffer.data(), &written);
		benchmark::DoNotOptimize(written);
	}
	PerOp(state, count);
}
BENCHMARK(Flatten)->Name("Scale/Flatten")->RangeMultiplier(10)->Range(10, 100000);

// Unflattening a block of count fields into a fresh message: per field.
void Unflatten(benchmark::State& state)
{
	const int count = static_cast<int>(state.range(0));
	ZvMessage message(0);
	FillDistinct(&message, count);
	std::vector<uint8> buffer(message.FlattenedSize());
	int32 written = 0;
	message.Flatten(buffer.data(), &written);
	for (auto _ : state) {
		ZvMessage restored(0);
		restored.Unflatten(buffer.data(), static_cast<size_t>(written));
		benchmark::DoNotOptimize(restored.what);
	}
	PerOp(state, count);
}
BENCHMARK(Unflatten)->Name("Scale/Unflatten")->RangeMultiplier(10)->Range(10, 100000);

void PeerHashFind(benchmark::State& state)
{
	const int count = static_cast<int>(state.range(0));
	const std::vector<std::string>& names = Names(count);
	std::unordered_map<std::string, int32> map;
	for (int i = 0; i < count; i++)
		map.emplace(names[i], i);
	int next = 0;
	int32 value = 0;
	for (auto _ : state) {
		auto found = map.find(names[next]);
		value = found->second;
		benchmark::DoNotOptimize(value);
		if (++next == count)
			next = 0;
	}
	PerOp(state, 1);
}
BENCHMARK(PeerHashFind)->Name("Scale/Peer/HashFind")->RangeMultiplier(10)->Range(10, 100000);

void PeerHashAddAndFind(benchmark::State& state)
{
	const int count = static_cast<int>(state.range(0));
	const std::vector<std::string>& names = Names(count);
	for (auto _ : state) {
		std::unordered_map<std::string, int32> map;
		int32 value = 0;
		for (int i = 0; i < count; i++) {
			map.emplace(names[i], i);
			value = map.find(names[i])->second;
		}
		benchmark::DoNotOptimize(value);
	}
	PerOp(state, count);
}
BENCHMARK(PeerHashAddAndFind)
    ->Name("Scale/Peer/HashAddAndFind")
    ->RangeMultiplier(10)
    ->Range(10, 100000);

void PeerRemoveFirst(benchmark::State& state)
{
	const int count = static_cast<int>(state.range(0));
	std::vector<std::unique_ptr<int32>> owned;
	std::vector<int32*> list;
	for (int i = 0; i < count; i++) {
		owned.push_back(std::make_unique<int32>(i));
		list.push_back(owned.back().get());
	}
	for (auto _ : state) {
		int32* first = list.front();
		list.erase(list.begin());
		list.push_back(first);
		benchmark::DoNotOptimize(list.data());
	}
	PerOp(state, 1);
}
BENCHMARK(PeerRemoveFirst)
    ->Name("Scale/Peer/RemoveFirstAndAdd")
    ->RangeMultiplier(10)
    ->Range(10, 100000);

// A block the size of a message item.
struct PeerItem
{
	uint32 type;
	int32 size;
	uint8* data;
	char name[64];
	uint8 value[32];
};

void PeerAllocateItems(benchmark::State& state)
{
	const int count = static_cast<int>(state.range(0));
	const std::vector<std::string>& names = Names(count);
	std::vector<PeerItem*> blocks(static_cast<size_t>(count));
	for (auto _ : state) {
		for (int i = 0; i < count; i++) {
			PeerItem* item = new PeerItem;
			item->type = 1;
			item->size = 4;
			item->data = item->value;
			memcpy(item->value, &i, sizeof(i));
			strcpy(item->name, names[i].c_str());
			blocks[i] = item;
		}
		for (int i = count; i-- > 0;)
			delete blocks[i];
		benchmark::DoNotOptimize(blocks.data());
	}
	PerOp(state, count);
}
BENCHMARK(PeerAllocateItems)
    ->Name("Scale/Peer/AllocateItems")
    ->RangeMultiplier(10)
    ->Range(10, 100000);

} // namespace
