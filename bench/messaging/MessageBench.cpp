// Message benchmarks: a 9- and a 100-field message flattened and read back (against
// msgpack-c packing and unpacking the same content), one 1 MiB field
// flattened (against memcpy of the same bytes), the cost of FindInt32
// and AddInt32, and the bounded Unflatten of a block in the other byte order
// (against the same block in the host's order) for a 9-field and the
// 100-field message.
#include <ZvMessage.h>

#include <benchmark/benchmark.h>
#include <msgpack.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

const type_code kRawType = 0x52415754;

// One field of the mixed content: a string, a raw block, a rectangle or a
// point, with values from 16 bytes to 1 KiB.
struct Field
{
	std::string name;
	int kind;
	std::vector<uint8> bytes;
	double numbers[4];
};

const std::vector<Field>& MixedFields()
{
	static const std::vector<Field> sFields = [] {
		std::mt19937 random(2024);
		std::vector<Field> fields;
		for (int i = 0; i < 100; i++) {
			Field field;
			field.name = "field" + std::to_string(i);
			field.kind = i % 4;
			const size_t length = 16 + random() % (1024 - 16 + 1);
			field.bytes.resize(length);
			for (uint8& byte : field.bytes)
				byte = static_cast<uint8>('a' + random() % 26);
			if (field.kind == 0)
				field.bytes.back() = 0;
			for (double& number : field.numbers)
				number = static_cast<double>(random()) / 7.0;
			fields.push_back(field);
		}
		return fields;
	}();
	return sFields;
}

// The first count fields of the mixed content.
std::vector<Field> FirstFields(size_t count)
{
	return std::vector<Field>(MixedFields().begin(), MixedFields().begin() + count);
}

void BuildMessage(ZvMessage* message, const std::vector<Field>& fields = MixedFields())
{
	for (const Field& field : fields) {
		const char* name = field.name.c_str();
		switch (field.kind) {
		case 0:
			message->AddString(name, reinterpret_cast<const char*>(field.bytes.data()));
			break;
		case 1:
			message->AddData(name, kRawType, field.bytes.data(),
			                 static_cast<int32>(field.bytes.size()));
			break;
		case 2:
			message->AddRect(name, ZvRect<double>{field.numbers[0], field.numbers[1],
			                                      field.numbers[2], field.numbers[3]});
			break;
		case 3:
			message->AddPoint(name, ZvPoint<double>{field.numbers[0], field.numbers[1]});
			break;
		}
	}
}

void PackFields(msgpack_packer* packer, const std::vector<Field>& fields = MixedFields())
{
	msgpack_pack_map(packer, fields.size());
	for (const Field& field : fields) {
		msgpack_pack_str(packer, field.name.size());
		msgpack_pack_str_body(packer, field.name.data(), field.name.size());
		switch (field.kind) {
		case 0: {
			const size_t length = strlen(reinterpret_cast<const char*>(field.bytes.data()));
			msgpack_pack_str(packer, length);
			msgpack_pack_str_body(packer, field.bytes.data(), length);
			break;
		}
		case 1:
			msgpack_pack_bin(packer, field.bytes.size());
			msgpack_pack_bin_body(packer, field.bytes.data(), field.bytes.size());
			break;
		case 2:
		case 3: {
			const int count = field.kind == 2 ? 4 : 2;
			msgpack_pack_array(packer, count);
			for (int i = 0; i < count; i++)
				msgpack_pack_double(packer, field.numbers[i]);
			break;
		}
		}
	}
}

void MixedRoundTrip_zvkit(benchmark::State& state)
{
	ZvMessage message(0x4D495844);
	BuildMessage(&message, FirstFields(static_cast<size_t>(state.range(0))));
	std::vector<uint8> buffer(message.FlattenedSize());
	ZvMessage restored(0);
	for (auto _ : state) {
		buffer.resize(message.FlattenedSize());
		int32 written;
		message.Flatten(buffer.data(), &written);
		if (!restored.Unflatten(buffer.data(), static_cast<size_t>(written)))
			state.SkipWithError("unflatten failed");
		benchmark::DoNotOptimize(restored.what);
	}
	state.SetBytesProcessed(state.iterations() * buffer.size());
}
BENCHMARK(MixedRoundTrip_zvkit)->Name("MixedFlattenUnflatten:zvkit")->Arg(9)->Arg(100);

void MixedRoundTrip_msgpack(benchmark::State& state)
{
	msgpack_sbuffer buffer;
	msgpack_sbuffer_init(&buffer);
	msgpack_packer packer;
	msgpack_packer_init(&packer, &buffer, msgpack_sbuffer_write);
	msgpack_unpacked unpacked;
	msgpack_unpacked_init(&unpacked);
	size_t packedSize = 0;
	const std::vector<Field> fields = FirstFields(static_cast<size_t>(state.range(0)));
	for (auto _ : state) {
		msgpack_sbuffer_clear(&buffer);
		PackFields(&packer, fields);
		size_t offset = 0;
		if (msgpack_unpack_next(&unpacked, buffer.data, buffer.size, &offset) !=
		    MSGPACK_UNPACK_SUCCESS) {
			state.SkipWithError("unpack failed");
		}
		benchmark::DoNotOptimize(unpacked.data.via.map.size);
		packedSize = buffer.size;
	}
	msgpack_unpacked_destroy(&unpacked);
	msgpack_sbuffer_destroy(&buffer);
	state.SetBytesProcessed(state.iterations() * packedSize);
}
BENCHMARK(MixedRoundTrip_msgpack)->Name("MixedFlattenUnflatten:msgpack")->Arg(9)->Arg(100);

const size_t kMiB = 1 << 20;

void LargeFlatten_zvkit(benchmark::State& state)
{
	std::vector<uint8> value(kMiB, 0x5A);
	ZvMessage message(0);
	message.AddData("blob", kRawType, value.data(), static_cast<int32>(value.size()));
	std::vector<uint8> buffer(message.FlattenedSize());
	for (auto _ : state) {
		message.Flatten(buffer.data());
		benchmark::DoNotOptimize(buffer.data());
		benchmark::ClobberMemory();
	}
	state.SetBytesProcessed(state.iterations() * kMiB);
}
BENCHMARK(LargeFlatten_zvkit)->Name("Flatten1MiB:zvkit");

void LargeFlatten_memcpy(benchmark::State& state)
{
	std::vector<uint8> value(kMiB, 0x5A);
	std::vector<uint8> buffer(kMiB);
	for (auto _ : state) {
		memcpy(buffer.data(), value.data(), kMiB);
		benchmark::DoNotOptimize(buffer.data());
		benchmark::ClobberMemory();
	}
	state.SetBytesProcessed(state.iterations() * kMiB);
}
BENCHMARK(LargeFlatten_memcpy)->Name("Flatten1MiB:memcpy");

void FindInt32Middle(benchmark::State& state)
{
	ZvMessage message(0);
	for (int i = 0; i < 100; i++)
		message.AddInt32(("field" + std::to_string(i)).c_str(), i);
	int32 value = 0;
	for (auto _ : state) {
		message.FindInt32("field49", &value);
		benchmark::DoNotOptimize(value);
	}
}
BENCHMARK(FindInt32Middle)->Name("FindInt32Of100:zvkit");

void AddInt32Thousand(benchmark::State& state)
{
	for (auto _ : state) {
		ZvMessage message(0);
		for (int32 i = 0; i < 1000; i++)
			message.AddInt32("n", i);
		benchmark::DoNotOptimize(message.what);
	}
	state.SetItemsProcessed(state.iterations() * 1000);
}
BENCHMARK(AddInt32Thousand)->Name("AddInt32x1000:zvkit");

// A small message of the usual kind: nine fields of nine families.
void BuildNineFields(ZvMessage* message)
{
	message->AddInt32("id", 42);
	message->AddInt64("when", 1700000000000000LL);
	message->AddDouble("x", 12.5);
	message->AddFloat("y", -3.25f);
	message->AddBool("visible", true);
	message->AddString("label", "a label of some length");
	message->AddRect("frame", ZvRect<double>{0, 0, 639, 479});
	message->AddPoint("where", ZvPoint<double>{320, 240});
	zv_color tint(10, 20, 30, 255);
	message->AddColor("tint", &tint);
}

zv_byte_order OtherOrder()
{
	return ZV_HostByteOrder() == ZV_LITTLE_ENDIAN ? ZV_BIG_ENDIAN : ZV_LITTLE_ENDIAN;
}

// Reads the message's block, written in order, with the bounded Unflatten of
// that order.
void UnflattenIn(benchmark::State& state, void (*build)(ZvMessage*), zv_byte_order order)
{
	ZvMessage message(0x4D495844);
	build(&message);
	std::vector<uint8> block(message.FlattenedSize());
	if (message.Flatten(block.data(), order) != B_OK)
		state.SkipWithError("flatten failed");
	ZvMessage restored(0);
	for (auto _ : state) {
		if (restored.Unflatten(block.data(), block.size(), order) != B_OK)
			state.SkipWithError("unflatten failed");
		benchmark::DoNotOptimize(restored.what);
	}
	state.SetBytesProcessed(state.iterations() * block.size());
}

void SwappedUnflatten9(benchmark::State& state)
{
	UnflattenIn(state, BuildNineFields, OtherOrder());
}
BENCHMARK(SwappedUnflatten9)->Name("SwappedUnflatten9:zvkit");

void HostUnflatten9(benchmark::State& state)
{
	UnflattenIn(state, BuildNineFields, ZV_HOST_ENDIAN);
}
BENCHMARK(HostUnflatten9)->Name("SwappedUnflatten9:hostorder");

// The 100 mixed fields, with the default field list spelled out (a function
// with a default argument does not convert to a one-argument pointer).
void BuildHundredFields(ZvMessage* message)
{
	BuildMessage(message, MixedFields());
}

void SwappedUnflatten100(benchmark::State& state)
{
	UnflattenIn(state, BuildHundredFields, OtherOrder());
}
BENCHMARK(SwappedUnflatten100)->Name("SwappedUnflatten100:zvkit");

void HostUnflatten100(benchmark::State& state)
{
	UnflattenIn(state, BuildHundredFields, ZV_HOST_ENDIAN);
}
BENCHMARK(HostUnflatten100)->Name("SwappedUnflatten100:hostorder");

} // namespace

BENCHMARK_MAIN();
