#include "appmenu/key_marks.h"

#ifdef __SSE2__
#include <immintrin.h>
#endif

namespace qel {
namespace {

bool IsMark(const char* at) {
  return *at == '=' ? at[-1] != ']' : *at == '[' && static_cast<unsigned char>(at[-1]) <= ' ';
}

const char* FindByByte(const char* block, const char* end, std::uint64_t& marks) {
  for (; block < end; block += kMarkBlock) {
    marks = 0;
    for (std::size_t i = 0; i < kMarkBlock; ++i) {
      marks |= std::uint64_t{IsMark(block + i)} << i;
    }
    if (marks != 0) {
      break;
    }
  }
  return block;
}

#ifdef __SSE2__

// 0xff for each byte that is a mark.
__m128i Marks16(const char* at) {
  const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
  const __m128i before = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at - 1));
  const __m128i equals =
      _mm_andnot_si128(_mm_cmpeq_epi8(before, _mm_set1_epi8(']')), _mm_cmpeq_epi8(bytes, _mm_set1_epi8('=')));
  const __m128i up_to_space = _mm_cmpeq_epi8(_mm_min_epu8(before, _mm_set1_epi8(' ')), before);
  return _mm_or_si128(equals, _mm_and_si128(up_to_space, _mm_cmpeq_epi8(bytes, _mm_set1_epi8('['))));
}

const char* FindBySse2(const char* block, const char* end, std::uint64_t& marks) {
  const auto bits = [](__m128i found) { return static_cast<std::uint64_t>(_mm_movemask_epi8(found)); };
  for (; block < end; block += kMarkBlock) {
    const __m128i found[] = {Marks16(block), Marks16(block + 16), Marks16(block + 32), Marks16(block + 48)};
    if (_mm_movemask_epi8(_mm_or_si128(_mm_or_si128(found[0], found[1]), _mm_or_si128(found[2], found[3]))) != 0) {
      marks = bits(found[0]) | bits(found[1]) << 16 | bits(found[2]) << 32 | bits(found[3]) << 48;
      break;
    }
  }
  return block;
}

[[gnu::target("avx2")]] inline __m256i Marks32(const char* at) {
  const __m256i bytes = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at));
  const __m256i before = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at - 1));
  const __m256i equals = _mm256_andnot_si256(_mm256_cmpeq_epi8(before, _mm256_set1_epi8(']')),
                                             _mm256_cmpeq_epi8(bytes, _mm256_set1_epi8('=')));
  const __m256i up_to_space = _mm256_cmpeq_epi8(_mm256_min_epu8(before, _mm256_set1_epi8(' ')), before);
  return _mm256_or_si256(equals, _mm256_and_si256(up_to_space, _mm256_cmpeq_epi8(bytes, _mm256_set1_epi8('['))));
}

[[gnu::target("avx2")]] const char* FindByAvx2(const char* block, const char* end, std::uint64_t& marks) {
  for (; block < end; block += kMarkBlock) {
    const __m256i low = Marks32(block);
    const __m256i high = Marks32(block + 32);
    if (const __m256i both = _mm256_or_si256(low, high); _mm256_testz_si256(both, both) == 0) {
      marks = static_cast<std::uint32_t>(_mm256_movemask_epi8(low)) |
              static_cast<std::uint64_t>(static_cast<std::uint32_t>(_mm256_movemask_epi8(high))) << 32;
      break;
    }
  }
  return block;
}

[[gnu::target("avx512bw")]] const char* FindByAvx512(const char* block, const char* end, std::uint64_t& marks) {
  const __m512i equals = _mm512_set1_epi8('=');
  const __m512i bracket = _mm512_set1_epi8('[');
  const __m512i closed = _mm512_set1_epi8(']');
  const __m512i space = _mm512_set1_epi8(' ');
  for (; block < end; block += kMarkBlock) {
    const __m512i bytes = _mm512_loadu_si512(block);
    const __m512i before = _mm512_loadu_si512(block - 1);
    marks = _mm512_mask_cmpneq_epi8_mask(_mm512_cmpeq_epi8_mask(bytes, equals), before, closed) |
            _mm512_mask_cmple_epu8_mask(_mm512_cmpeq_epi8_mask(bytes, bracket), before, space);
    if (marks != 0) {
      break;
    }
  }
  return block;
}

#endif

}  // namespace

std::vector<MarkFinder> MarkFinders() {
  std::vector<MarkFinder> finders;
#ifdef __SSE2__
  if (__builtin_cpu_supports("avx512bw")) {
    finders.push_back(FindByAvx512);
  }
  if (__builtin_cpu_supports("avx2")) {
    finders.push_back(FindByAvx2);
  }
  finders.push_back(FindBySse2);
#endif
  finders.push_back(FindByByte);
  return finders;
}

}  // namespace qel
