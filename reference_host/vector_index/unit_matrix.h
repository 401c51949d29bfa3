#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace tessaly::vectors {

struct Hit {
  std::int64_t id;
  float similarity;
};

/// Vectors of one dimension under ascending ids, kept at length 1 in one contiguous block of
/// floats, so that a cosine is one dot product. A vector without a direction (zero, or with a
/// component that is not finite) is kept as zero: its similarity to everything is 0. Similarities
/// are never NaN and lie in [-1, 1]. Takes 4 bytes a component and 8 a vector. Knows nothing of
/// Python; once filled it may be read by many threads.
class UnitMatrix {
 public:
  /// Throws std::bad_alloc when there is no room for `capacity` vectors.
  UnitMatrix(std::size_t dimension, std::size_t capacity);

  /// The id must be greater than the last one, and there must be capacity left.
  void append(std::int64_t id, const float* vector);
  void append(std::int64_t id, const double* vector);

  [[nodiscard]] std::size_t dimension() const noexcept { return dimension_; }
  [[nodiscard]] std::span<const std::int64_t> ids() const noexcept { return ids_; }

  /// The `count` rows most similar to a query (as `unit_vector` makes it), best first, ties by id.
  [[nodiscard]] std::vector<Hit> nearest(const float* unit_query, std::size_t count) const;

  /// The similarity of the row of that id; 0 when there is none.
  [[nodiscard]] float similarity(const float* unit_query, std::int64_t id) const;

  /// The sum of all components: what it costs to read the matrix once.
  [[nodiscard]] float component_sum() const noexcept;

 private:
  struct Release {
    void operator()(float* rows) const noexcept;
  };

  [[nodiscard]] float* next_row() noexcept { return rows_.get() + ids_.size() * dimension_; }

  std::size_t dimension_;
  std::vector<std::int64_t> ids_;
  std::unique_ptr<float[], Release> rows_;
};

/// Writes the vector scaled to length 1, or zeros when it has no direction.
void unit_vector(const double* vector, std::size_t dimension, float* unit) noexcept;

}  // namespace tessaly::vectors
