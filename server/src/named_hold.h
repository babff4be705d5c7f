// Something that was taken under a name and is given back once: a lock, a place. Which of the two, the table
// says that it came from.
#pragma once

#include <string>
#include <utility>

namespace zorvan::gridftp {

/// Holds one name of a table; gives it back when destroyed, on any thread. Empty when default-constructed or
/// moved from.
/// @tparam Table  has release(const std::string& name) noexcept, and outlives what is held
template <class Table>
class named_hold {
  public:
    named_hold() = default;
    named_hold(Table& table, std::string name) : table_(&table), name_(std::move(name)) {}
    named_hold(named_hold&& other) noexcept
        : table_(std::exchange(other.table_, nullptr)), name_(std::move(other.name_)) {}
    named_hold& operator=(named_hold&& other) noexcept {
        if (this != &other) {
            release();
            table_ = std::exchange(other.table_, nullptr);
            name_ = std::move(other.name_);
        }
        return *this;
    }
    ~named_hold() { release(); }
    void release() noexcept {
        if (auto* table = std::exchange(table_, nullptr)) {
            table->release(name_);
        }
    }
    explicit operator bool() const noexcept { return table_ != nullptr; }

  private:
    Table* table_ = nullptr;
    std::string name_;
};

}  // namespace zorvan::gridftp
