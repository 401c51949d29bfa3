#include "unit_matrix.h"

#if defined(__linux__)
#include <sys/mman.h>
#endif

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <memory>
#include <new>

#include "kernels.h"

namespace tessaly::vectors {
namespace {

constexpr std::align_val_t kAlignment{64};  // a cache line

// Advises huge pages for the part of a large block that holds whole ones: the matrix then needs few
// page faults to fill and few address translations to scan. Where it is not taken, pages are small.
void advise_huge_pages([[maybe_unused]] void* block, [[maybe_unused]] std::size_t bytes) noexcept {
#if defined(__linux__) && defined(MADV_HUGEPAGE)
  constexpr std::size_t kHugePage = std::size_t{1} << 21;
  std::size_t space = bytes;
  if (bytes < 2 * kHugePage || std::align(kHugePage, kHugePage, block, space) == nullptr) return;
  (void)madvise(block, space / kHugePage * kHugePage, MADV_HUGEPAGE);
#endif
}

float* allocate_rows(std::size_t dimension, std::size_t count) {
  if (dimension != 0 && count > std::numeric_limits<std::size_t>::max() / sizeof(float) / dimension)
    throw std::bad_alloc();
  const std::size_t bytes = dimension * count * sizeof(float);
  void* rows = ::operator new(bytes, kAlignment);
  advise_huge_pages(rows, bytes);
  return static_cast<float*>(rows);
}

// A total order: similarities are never NaN and ids differ.
constexpr auto better = [](const Hit& a, const Hit& b) noexcept {
  return a.similarity > b.similarity || (a.similarity == b.similarity && a.id < b.id);
};

// Rounding may carry a dot product of unit vectors just over the edge.
float clamped(float similarity) noexcept { return std::clamp(similarity, -1.0F, 1.0F); }

}  // namespace

void UnitMatrix::Release::operator()(float* rows) const noexcept {
  ::operator delete(rows, kAlignment);
}

UnitMatrix::UnitMatrix(std::size_t dimension, std::size_t capacity)
    : dimension_(dimension), rows_(allocate_rows(dimension, capacity)) {
  ids_.reserve(capacity);
}

void UnitMatrix::append(std::int64_t id, const float* vector) {
  kernels().to_unit(vector, dimension_, next_row());
  ids_.push_back(id);
}

void UnitMatrix::append(std::int64_t id, const double* vector) {
  unit_vector(vector, dimension_, next_row());
  ids_.push_back(id);
}

std::vector<Hit> UnitMatrix::nearest(const float* unit_query, std::size_t count) const {
  constexpr std::size_t kBlock = 128;
  std::array<float, kBlock> similarities;
  std::vector<Hit> best;  // a heap with the worst of the best on top
  count = std::min(count, ids_.size());
  if (count == 0) return best;
  best.reserve(count);
  const auto dot_rows = kernels().dot_rows;
  for (std::size_t start = 0; start < ids_.size(); start += kBlock) {
    const std::size_t rows = std::min(kBlock, ids_.size() - start);
    dot_rows(rows_.get() + start * dimension_, rows, dimension_, unit_query, similarities.data());
    for (std::size_t i = 0; i < rows; ++i) {
      const Hit hit{ids_[start + i], clamped(similarities[i])};
      if (best.size() < count) {
        best.push_back(hit);
        std::push_heap(best.begin(), best.end(), better);
      } else if (hit.similarity > best.front().similarity) {
        // An equal one has a greater id than those before it, so it is never better.
        std::pop_heap(best.begin(), best.end(), better);
        best.back() = hit;
        std::push_heap(best.begin(), best.end(), better);
      }
    }
  }
  std::sort_heap(best.begin(), best.end(), better);
  return best;
}

float UnitMatrix::similarity(const float* unit_query, std::int64_t id) const {
  const auto found = std::lower_bound(ids_.begin(), ids_.end(), id);
  if (found == ids_.end() || *found != id) return 0;
  const auto row = static_cast<std::size_t>(found - ids_.begin());
  float similarity = 0;
  kernels().dot_rows(rows_.get() + row * dimension_, 1, dimension_, unit_query, &similarity);
  return clamped(similarity);
}

float UnitMatrix::component_sum() const noexcept {
  return kernels().sum(rows_.get(), ids_.size() * dimension_);
}

void unit_vector(const double* vector, std::size_t dimension, float* unit) noexcept {
  // Divided by the greatest component first, so that no square overflows or vanishes.
  double greatest = 0;
  bool finite = true;
  for (std::size_t i = 0; i < dimension; ++i) {
    finite = finite && std::isfinite(vector[i]);
    greatest = std::max(greatest, std::abs(vector[i]));
  }
  if (!finite || greatest == 0) {
    std::fill_n(unit, dimension, 0.0F);
    return;
  }
  double squares = 0;
  for (std::size_t i = 0; i < dimension; ++i) {
    const double component = vector[i] / greatest;
    squares += component * component;
  }
  const double length = std::sqrt(squares);
  for (std::size_t i = 0; i < dimension; ++i)
    unit[i] = static_cast<float>(vector[i] / greatest / length);
}

}  // namespace tessaly::vectors
