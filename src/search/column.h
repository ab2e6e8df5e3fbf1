// SPDX-License-Identifier: MIT
//
// A table column that grows while others read it.

#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>

namespace QuenloftSearch {

// The first `rows` rows of a column as they were when the view was made; row-major, `width`
// values each. Holds the memory.
template <typename T>
struct ColumnView {
  std::shared_ptr<const T[]> data;
  std::size_t rows = 0;
  std::size_t width = 1;

  const T* Row(std::size_t position) const { return data.get() + position * width; }
  const T& operator[](std::size_t position) const { return data[position * width]; }
};

// Rows of `width` values. What was written is never changed or moved while a view shows it:
// where room runs out the rows are copied to a larger store, and views keep the old one.
//
// Threads: one that writes; views made by it can be read anywhere.
template <typename T>
class Column {
 public:
  explicit Column(std::size_t width = 1) : width_(width) {}
  // Rows written to one copy do not show in the other.
  Column(const Column& other) : width_(other.width_) {
    Reserve(other.rows_);
    std::copy_n(other.data_.get(), other.rows_ * width_, data_.get());
    rows_ = other.rows_;
  }
  Column& operator=(const Column&) = delete;

  // Makes room for rows, so that appending as many cannot fail.
  void Reserve(std::size_t rows) {
    if (rows <= capacity_) return;
    const std::size_t capacity = std::max({rows, 2 * capacity_, std::size_t{64}});
    std::shared_ptr<T[]> data(new T[std::max(capacity * width_, std::size_t{1})]);
    std::copy_n(data_.get(), rows_ * width_, data.get());
    data_ = std::move(data);
    capacity_ = capacity;
  }

  // `row` points to `width` values.
  void Append(const T* row) {
    Reserve(rows_ + 1);
    std::copy_n(row, width_, data_.get() + rows_ * width_);
    ++rows_;
  }

  std::size_t Rows() const { return rows_; }
  const T* Row(std::size_t position) const { return data_.get() + position * width_; }
  const T& operator[](std::size_t position) const { return data_[position * width_]; }
  ColumnView<T> View() const { return {data_, rows_, width_}; }

 private:
  std::size_t width_;
  std::size_t rows_ = 0;
  std::size_t capacity_ = 0;
  std::shared_ptr<T[]> data_;
};

}  // namespace QuenloftSearch
