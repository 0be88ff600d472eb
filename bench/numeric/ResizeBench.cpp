// Box downscaling of 4-channel 8-bit images: ZV_ResizeInterpolate against
// stb_image_resize's box filter and pixman's separable box convolution, on
// the same data.
#include <ZvResize.h>

#include <benchmark/benchmark.h>
#include <pixman.h>

#define STB_IMAGE_RESIZE_IMPLEMENTATION
#include <stb_image_resize.h>

#include <cstdint>
#include <cstdlib>
#include <random>
#include <vector>

namespace {

struct Sizes
{
	int sw, sh, dw, dh;
};

Sizes SizesOf(const benchmark::State& state)
{
	return Sizes{static_cast<int>(state.range(0)), static_cast<int>(state.range(1)),
	             static_cast<int>(state.range(2)), static_cast<int>(state.range(3))};
}

// The source image plus the one word of slack the resampler may read.
std::vector<uint32> Source(const Sizes& s)
{
	std::vector<uint32> words(static_cast<size_t>(s.sw) * s.sh + 1);
	std::mt19937 random(42);
	for (uint32& word : words)
		word = random();
	return words;
}

void Resize_zvkit(benchmark::State& state)
{
	const Sizes s = SizesOf(state);
	const std::vector<uint32> src = Source(s);
	std::vector<uint32> dst(static_cast<size_t>(s.dw) * s.dh);
	for (auto _ : state) {
		ZV_ResizeInterpolate(src.data(), s.sw, s.sh, dst.data(), s.dw, s.dh);
		benchmark::DoNotOptimize(dst.data());
		benchmark::ClobberMemory();
	}
}

void Resize_stb(benchmark::State& state)
{
	const Sizes s = SizesOf(state);
	const std::vector<uint32> src = Source(s);
	std::vector<uint32> dst(static_cast<size_t>(s.dw) * s.dh);
	for (auto _ : state) {
		if (!stbir_resize_uint8_generic(reinterpret_cast<const unsigned char*>(src.data()), s.sw,
		                                s.sh, s.sw * 4,
		                                reinterpret_cast<unsigned char*>(dst.data()), s.dw, s.dh,
		                                s.dw * 4, 4, STBIR_ALPHA_CHANNEL_NONE, 0, STBIR_EDGE_CLAMP,
		                                STBIR_FILTER_BOX, STBIR_COLORSPACE_LINEAR, nullptr))
			std::abort();
		benchmark::DoNotOptimize(dst.data());
		benchmark::ClobberMemory();
	}
}

void Resize_pixman(benchmark::State& state)
{
	const Sizes s = SizesOf(state);
	std::vector<uint32> src = Source(s);
	std::vector<uint32> dst(static_cast<size_t>(s.dw) * s.dh);
	pixman_image_t* source =
	    pixman_image_create_bits(PIXMAN_a8r8g8b8, s.sw, s.sh, src.data(), s.sw * 4);
	pixman_image_t* target =
	    pixman_image_create_bits(PIXMAN_a8r8g8b8, s.dw, s.dh, dst.data(), s.dw * 4);
	const double scaleX = static_cast<double>(s.sw) / s.dw;
	const double scaleY = static_cast<double>(s.sh) / s.dh;
	pixman_transform_t transform;
	pixman_transform_init_scale(&transform, pixman_double_to_fixed(scaleX),
	                            pixman_double_to_fixed(scaleY));
	pixman_image_set_transform(source, &transform);
	int count = 0;
	pixman_fixed_t* params = pixman_filter_create_separable_convolution(
	    &count, pixman_double_to_fixed(scaleX), pixman_double_to_fixed(scaleY), PIXMAN_KERNEL_BOX,
	    PIXMAN_KERNEL_BOX, PIXMAN_KERNEL_BOX, PIXMAN_KERNEL_BOX, 0, 0);
	pixman_image_set_filter(source, PIXMAN_FILTER_SEPARABLE_CONVOLUTION, params, count);
	std::free(params);
	for (auto _ : state) {
		pixman_image_composite32(PIXMAN_OP_SRC, source, nullptr, target, 0, 0, 0, 0, 0, 0, s.dw,
		                         s.dh);
		benchmark::DoNotOptimize(dst.data());
		benchmark::ClobberMemory();
	}
	pixman_image_unref(source);
	pixman_image_unref(target);
}

void Cases(benchmark::internal::Benchmark* bench)
{
	bench->Args({1920, 1080, 640, 360});
	bench->Args({1920, 1080, 800, 450});
	bench->Args({4096, 4096, 256, 256});
	bench->Unit(benchmark::kMillisecond);
}

} // namespace

BENCHMARK(Resize_zvkit)->Name("Resize:zvkit")->Apply(Cases);
BENCHMARK(Resize_stb)->Name("Resize:stb")->Apply(Cases);
BENCHMARK(Resize_pixman)->Name("Resize:pixman")->Apply(Cases);
