// Utf8Scan.cpp: character counting and stepping over bounded byte ranges.
//
// The text is examined in blocks of 64 bytes. For each byte the block test
// computes whether the lead bytes just before it (one, two or three bytes
// back) say it must be a continuation byte, and compares that with whether it
// is one. When the two agree over a whole block, and the walk entered the
// block in step with its lead bytes, the character starts in the block are
// exactly its non-continuation bytes, so counting them gives the number of
// steps the byte-wise walk would take. Where they disagree the text is not
// well-formed, and the walk goes one character at a time until it is again at
// a character start that no earlier lead reaches past. The count therefore
// always equals the number of steps of the byte-wise walk.
//
// Where the processor has AVX-512 BW a block is one 64-byte vector, where it
// has AVX2 two 32-byte vectors; otherwise eight 64-bit words (the 32-bit
// build always takes the words).
#include "Utf8Scan.h"

#include <string.h>

#include <algorithm>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace zvkit::internal {

namespace {

const size_t kBlock = 64;

inline bool IsContinuation(char c)
{
	return (static_cast<uint8>(c) & 0xC0) == 0x80;
}

// A block scan examines up to `blocks` blocks from p (p - 3 must be
// readable) and stops before the first one in which some byte's being a
// continuation byte disagrees with the leads before it. It returns the number
// of good blocks and adds their non-continuation bytes to *starts.
typedef size_t (*BlockScan)(const char* p, size_t blocks, size_t* starts);

// A copying scan does the same and also stores every block it loads, good
// or not, at the same offset from `to` (a bad block's bytes are copied again
// by the walk that follows).
typedef size_t (*CopyScan)(const char* p, size_t blocks, size_t* starts, char* to);

const uint64 kHighBits = 0x8080808080808080ull;
const uint64 kByteOnes = 0x0101010101010101ull;

// Whether none of the three bytes before p is a lead (0xC0 and above), so
// that no character started before p reaches into it. A block of ASCII bytes
// after such bytes is good: its 64 bytes are 64 character starts.
inline bool NothingReaches(const char* p)
{
	return static_cast<uint8>(p[-1]) < 0xC0 && static_cast<uint8>(p[-2]) < 0xC0 &&
	       static_cast<uint8>(p[-3]) < 0xC0;
}

// Eight bytes in memory order, the first one in the low byte.
inline uint64 LoadWord(const char* p)
{
	uint64 word;
	memcpy(&word, p, sizeof(word));
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
	word = __builtin_bswap64(word);
#endif
	return word;
}

// Eight 64-bit words at a time, on any machine.
template <bool kCopy>
inline size_t ScanWords(const char* p, size_t blocks, size_t* starts, char* to)
{
	size_t good = 0;
	for (; good < blocks; good++) {
		const char* block = p + good * kBlock;
		if (kCopy)
			memcpy(to + good * kBlock, block, kBlock);
		uint64 high = 0;
		for (size_t i = 0; i < kBlock; i += 8)
			high |= LoadWord(block + i);
		if ((high & kHighBits) == 0 && NothingReaches(block)) {
			*starts += kBlock;
			continue;
		}
		uint64 disagree = 0;
		uint64 continuations = 0;
		for (size_t i = 0; i < kBlock; i += 8) {
			const char* q = block + i;
			const uint64 bytes = LoadWord(q);
			const uint64 back1 = LoadWord(q - 1);
			const uint64 back2 = LoadWord(q - 2);
			const uint64 back3 = LoadWord(q - 3);
			// Bit 7 of each byte: set when the byte is 10xxxxxx.
			const uint64 continuation = bytes & ~(bytes << 1) & kHighBits;
			// Set when the byte 1 back is 0xC0 or above, 2 back 0xE0 or
			// above, 3 back 0xF0 or above (the shifts bring bits 6..4 to
			// bit 7).
			const uint64 reach2 = back1 & (back1 << 1);
			const uint64 reach3 = back2 & (back2 << 1) & (back2 << 2);
			const uint64 reach4 = back3 & (back3 << 1) & (back3 << 2) & (back3 << 3);
			const uint64 reached = (reach2 | reach3 | reach4) & kHighBits;
			disagree |= reached ^ continuation;
			continuations += continuation >> 7;
		}
		if (disagree != 0)
			break;
		*starts += kBlock - static_cast<size_t>((continuations * kByteOnes) >> 56);
	}
	return good;
}

size_t ScanBlocksWords(const char* p, size_t blocks, size_t* starts)
{
	return ScanWords<false>(p, blocks, starts, nullptr);
}

size_t CopyBlocksWords(const char* p, size_t blocks, size_t* starts, char* to)
{
	return ScanWords<true>(p, blocks, starts, to);
}

#if defined(__x86_64__)

// Two 32-byte vectors at a time, where the processor has AVX2.
template <bool kCopy>
__attribute__((target("avx2"), always_inline)) inline size_t ScanAvx2(const char* p, size_t blocks,
                                                                      size_t* starts, char* to)
{
	const __m256i zero = _mm256_setzero_si256();
	const __m256i continuationLimit = _mm256_set1_epi8(-64);
	const __m256i after2 = _mm256_set1_epi8(static_cast<char>(0xBF));
	const __m256i after3 = _mm256_set1_epi8(static_cast<char>(0xDF));
	const __m256i after4 = _mm256_set1_epi8(static_cast<char>(0xEF));
	// Continuation bytes of the good blocks, summed in four 64-bit lanes.
	__m256i total = zero;
	size_t good = 0;
	for (; good < blocks; good++) {
		const char* block = p + good * kBlock;
		const __m256i low = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(block));
		const __m256i high = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(block + 32));
		if (kCopy) {
			_mm256_storeu_si256(reinterpret_cast<__m256i*>(to + good * kBlock), low);
			_mm256_storeu_si256(reinterpret_cast<__m256i*>(to + good * kBlock + 32), high);
		}
		// ASCII blocks, the common case, are told apart first.
		const __m256i ascii = _mm256_or_si256(low, high);
		if (_mm256_movemask_epi8(ascii) == 0 && NothingReaches(block))
			continue;
		__m256i agree = _mm256_set1_epi8(-1);
		__m256i continuations = zero;
		for (size_t i = 0; i < kBlock; i += 32) {
			const char* q = block + i;
			const __m256i bytes = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(q));
			const __m256i back1 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(q - 1));
			const __m256i back2 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(q - 2));
			const __m256i back3 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(q - 3));
			// 0x80-0xBF as signed bytes are the ones below -64.
			const __m256i continuation = _mm256_cmpgt_epi8(continuationLimit, bytes);
			// Non-zero where a lead 1, 2 or 3 bytes back reaches this byte.
			const __m256i reached = _mm256_or_si256(
			    _mm256_subs_epu8(back1, after2),
			    _mm256_or_si256(_mm256_subs_epu8(back2, after3), _mm256_subs_epu8(back3, after4)));
			const __m256i unreached = _mm256_cmpeq_epi8(reached, zero);
			// Each byte is either reached or an unreached non-continuation
			// byte: the xor is all ones where that holds.
			agree = _mm256_and_si256(agree, _mm256_xor_si256(unreached, continuation));
			continuations = _mm256_sub_epi8(continuations, continuation);
		}
		if (static_cast<uint32>(_mm256_movemask_epi8(agree)) != 0xFFFFFFFFu)
			break;
		total = _mm256_add_epi64(total, _mm256_sad_epu8(continuations, zero));
	}
	const size_t continuationCount = static_cast<size_t>(_mm256_extract_epi64(total, 0)) +
	                                 static_cast<size_t>(_mm256_extract_epi64(total, 1)) +
	                                 static_cast<size_t>(_mm256_extract_epi64(total, 2)) +
	                                 static_cast<size_t>(_mm256_extract_epi64(total, 3));
	*starts += good * kBlock - continuationCount;
	return good;
}

__attribute__((target("avx2"))) size_t ScanBlocksAvx2(const char* p, size_t blocks, size_t* starts)
{
	return ScanAvx2<false>(p, blocks, starts, nullptr);
}

__attribute__((target("avx2"))) size_t CopyBlocksAvx2(const char* p, size_t blocks, size_t* starts,
                                                      char* to)
{
	return ScanAvx2<true>(p, blocks, starts, to);
}

// One 64-byte vector at a time, where the processor has AVX-512 BW: the
// block test becomes two 64-bit masks compared for equality, and the
// continuation bytes a population count.
template <bool kCopy>
__attribute__((target("avx512f,avx512bw"), always_inline)) inline size_t
ScanAvx512(const char* p, size_t blocks, size_t* starts, char* to)
{
	const __m512i continuationLimit = _mm512_set1_epi8(-64);
	const __m512i after2 = _mm512_set1_epi8(static_cast<char>(0xBF));
	const __m512i after3 = _mm512_set1_epi8(static_cast<char>(0xDF));
	const __m512i after4 = _mm512_set1_epi8(static_cast<char>(0xEF));
	size_t continuationCount = 0;
	size_t good = 0;
	for (; good < blocks; good++) {
		const char* block = p + good * kBlock;
		const __m512i bytes = _mm512_loadu_si512(block);
		if (kCopy)
			_mm512_storeu_si512(to + good * kBlock, bytes);
		// ASCII blocks, the common case, are told apart first.
		if (_mm512_movepi8_mask(bytes) == 0 && NothingReaches(block))
			continue;
		const __m512i back1 = _mm512_loadu_si512(block - 1);
		const __m512i back2 = _mm512_loadu_si512(block - 2);
		const __m512i back3 = _mm512_loadu_si512(block - 3);
		// 0x80-0xBF as signed bytes are the ones below -64.
		const __mmask64 continuation = _mm512_cmplt_epi8_mask(bytes, continuationLimit);
		// Non-zero where a lead 1, 2 or 3 bytes back reaches this byte.
		const __m512i reaching = _mm512_or_si512(
		    _mm512_subs_epu8(back1, after2),
		    _mm512_or_si512(_mm512_subs_epu8(back2, after3), _mm512_subs_epu8(back3, after4)));
		const __mmask64 reached = _mm512_test_epi8_mask(reaching, reaching);
		// Every byte is either reached and a continuation byte, or neither.
		if (reached != continuation)
			break;
		continuationCount += static_cast<size_t>(__builtin_popcountll(continuation));
	}
	*starts += good * kBlock - continuationCount;
	return good;
}

__attribute__((target("avx512f,avx512bw"))) size_t ScanBlocksAvx512(const char* p, size_t blocks,
                                                                    size_t* starts)
{
	return ScanAvx512<false>(p, blocks, starts, nullptr);
}

__attribute__((target("avx512f,avx512bw"))) size_t CopyBlocksAvx512(const char* p, size_t blocks,
                                                                    size_t* starts, char* to)
{
	return ScanAvx512<true>(p, blocks, starts, to);
}

#endif

BlockScan ChooseBlockScan()
{
#if defined(__x86_64__)
	__builtin_cpu_init();
	if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw"))
		return ScanBlocksAvx512;
	if (__builtin_cpu_supports("avx2"))
		return ScanBlocksAvx2;
#endif
	return ScanBlocksWords;
}

// Chosen once, on first use.
BlockScan TheBlockScan()
{
	static const BlockScan scan = ChooseBlockScan();
	return scan;
}

BlockScan ScanOfKind(BlockScanKind kind)
{
#if defined(__x86_64__)
	if (kind == BlockScanKind::kAvx2)
		return ScanBlocksAvx2;
	if (kind == BlockScanKind::kAvx512)
		return ScanBlocksAvx512;
#endif
	(void)kind;
	return ScanBlocksWords;
}

// The copying scan of the same kind.
CopyScan CopyScanFor(BlockScan scan)
{
#if defined(__x86_64__)
	if (scan == ScanBlocksAvx512)
		return CopyBlocksAvx512;
	if (scan == ScanBlocksAvx2)
		return CopyBlocksAvx2;
#endif
	(void)scan;
	return CopyBlocksWords;
}

// Bytes at the start of [p, ...) that the leads in the three bytes before p
// cover (the walk is in step with those leads).
inline size_t Overhang(const char* p)
{
	size_t overhang = 0;
	for (size_t back = 1; back <= 3; back++) {
		const uint32 size = CharSize(p - back);
		if (size > back && size - back > overhang)
			overhang = size - back;
	}
	return overhang;
}

// Whether the block test may start at character start p: none of the three
// bytes before it is a lead that would reach p or beyond.
inline bool BlockMayStart(const char* text, size_t p)
{
	return p >= 3 && Overhang(text + p) == 0;
}

// Whether the character that starts at text[i] is complete and followed by
// the right continuation bytes inside [text, text + n).
inline bool CharIsWellFormed(const char* text, size_t n, size_t i, uint32 size)
{
	if (IsContinuation(text[i]) || i + size > n)
		return false;
	for (uint32 k = 1; k < size; k++) {
		if (!IsContinuation(text[i + k]))
			return false;
	}
	return true;
}

// After a run of good blocks ending at i (or at a start no lead reaches
// past, where there is nothing to skip): the last lead counted may still
// cover the next bytes, which belong to its character. Returns the offset
// after them.
template <bool kCheck> inline size_t SkipOverhang(const char* text, size_t n, size_t i, bool* ok)
{
	const size_t overhang = Overhang(text + i);
	if (kCheck) {
		for (size_t k = 0; k < overhang; k++)
			*ok = *ok && i + k < n && IsContinuation(text[i + k]);
	}
	return i + overhang;
}

// The walk shared by counting and stepping: goes from the start of text
// until n, or until limit characters have been stepped over, using whole
// blocks where they can be taken. Returns the offset after the last
// character stepped over (past n when that character is cut short) and the
// number of characters.
template <bool kCheck>
size_t Walk(BlockScan scanBlocks, const char* text, size_t n, size_t limit, size_t* steps,
            bool* wellFormed)
{
	size_t i = 0;
	size_t count = 0;
	bool ok = true;
	// inStep: i is a character start and the block test may start there, or
	// i follows a run of good blocks (the leads before it are in step).
	bool inStep = false;
	while (i < n && count < limit) {
		if (!inStep)
			inStep = BlockMayStart(text, i);
		if (inStep) {
			// Each block holds at most kBlock character starts.
			const size_t blocks = std::min((n - i) / kBlock, (limit - count) / kBlock);
			const size_t good = blocks != 0 ? scanBlocks(text + i, blocks, &count) : 0;
			i += good * kBlock;
			if (good != 0 && good == blocks)
				continue;
		}
		if (inStep) {
			// Leave the block walk at the next character start.
			i = SkipOverhang<kCheck>(text, n, i, &ok);
			inStep = false;
			if (i >= n)
				break;
		}
		// One character at a time to the end of this block's worth.
		const size_t end = i + kBlock;
		while (i < n && i < end && count < limit) {
			const uint32 size = CharSize(text + i);
			if (kCheck)
				ok = ok && CharIsWellFormed(text, n, i, size);
			count++;
			i += size;
		}
	}
	if (inStep)
		i = SkipOverhang<kCheck>(text, n, i, &ok);
	if (steps != nullptr)
		*steps = count;
	if (wellFormed != nullptr)
		*wellFormed = ok;
	return i;
}

// The walk of Walk without a limit, copying [text, text + n) to `to` on the
// way: the good blocks are stored by the scan from the vectors it has
// loaded, and the bytes between them, walked one character at a time, are
// copied before each scan and at the end (`copied` marks how far `to` is
// filled).
size_t CopyWalk(CopyScan scanBlocks, char* to, const char* text, size_t n)
{
	size_t i = 0;
	size_t count = 0;
	size_t copied = 0;
	bool inStep = false;
	while (i < n) {
		if (!inStep)
			inStep = BlockMayStart(text, i);
		if (inStep) {
			const size_t blocks = (n - i) / kBlock;
			if (blocks != 0) {
				memcpy(to + copied, text + copied, i - copied);
				const size_t good = scanBlocks(text + i, blocks, &count, to + i);
				i += good * kBlock;
				copied = i;
				if (good != 0 && good == blocks)
					continue;
			}
			// Leave the block walk at the next character start.
			i += Overhang(text + i);
			inStep = false;
			if (i >= n)
				break;
		}
		// One character at a time to the end of this block's worth.
		const size_t end = i + kBlock;
		while (i < n && i < end) {
			count++;
			i += CharSize(text + i);
		}
	}
	memcpy(to + copied, text + copied, n - copied);
	return count;
}

} // namespace

size_t CopyCountChars(char* to, const char* text, size_t n)
{
	static const CopyScan scan = CopyScanFor(TheBlockScan());
	return CopyWalk(scan, to, text, n);
}

size_t CopyCountCharsUsing(BlockScanKind kind, char* to, const char* text, size_t n)
{
	return CopyWalk(CopyScanFor(ScanOfKind(kind)), to, text, n);
}

size_t CountChars(const char* text, size_t n, bool* wellFormed)
{
	size_t count;
	if (wellFormed != nullptr)
		Walk<true>(TheBlockScan(), text, n, static_cast<size_t>(-1), &count, wellFormed);
	else
		Walk<false>(TheBlockScan(), text, n, static_cast<size_t>(-1), &count, nullptr);
	return count;
}

size_t WalkChars(const char* text, size_t n, size_t count, size_t* walked, bool* cut)
{
	size_t steps;
	size_t i = Walk<false>(TheBlockScan(), text, n, count, &steps, nullptr);
	if (cut != nullptr)
		*cut = i > n;
	if (i > n)
		i = n;
	if (walked != nullptr)
		*walked = steps;
	return i;
}

std::vector<BlockScanKind> AvailableBlockScans()
{
	std::vector<BlockScanKind> kinds = {BlockScanKind::kWords};
#if defined(__x86_64__)
	__builtin_cpu_init();
	if (__builtin_cpu_supports("avx2"))
		kinds.push_back(BlockScanKind::kAvx2);
	if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw"))
		kinds.push_back(BlockScanKind::kAvx512);
#endif
	return kinds;
}

size_t CountCharsUsing(BlockScanKind kind, const char* text, size_t n, bool* wellFormed)
{
	const BlockScan scan = ScanOfKind(kind);
	size_t count;
	bool ok;
	Walk<true>(scan, text, n, static_cast<size_t>(-1), &count, &ok);
	if (wellFormed != nullptr)
		*wellFormed = ok;
	return count;
}

} // namespace zvkit::internal
