#pragma once
// Result<T, E>: the value of an operation that can fail, without exceptions.
// A thin [[nodiscard]] wrapper over std::variant; E is usually an enum ending in
// "Error" or a small struct carrying one.

#include <utility>
#include <variant>

namespace velko {

template <typename E>
struct Failure {
    E error;
};

template <typename E>
Failure<std::decay_t<E>> fail(E&& error) { return {std::forward<E>(error)}; }

struct Ok {};

template <typename T, typename E>
class [[nodiscard]] Result {
public:
    Result(T value) : m_storage(std::in_place_index<0>, std::move(value)) {}
    template <typename F>
    Result(Failure<F> failure) : m_storage(std::in_place_index<1>, E(std::move(failure.error))) {}

    bool ok() const { return m_storage.index() == 0; }
    explicit operator bool() const { return ok(); }

    T& value() & { return std::get<0>(m_storage); }
    const T& value() const& { return std::get<0>(m_storage); }
    T&& value() && { return std::get<0>(std::move(m_storage)); }
    const E& error() const { return std::get<1>(m_storage); }

    T* operator->() { return &value(); }
    const T* operator->() const { return &value(); }
    T& operator*() & { return value(); }
    const T& operator*() const& { return value(); }

private:
    std::variant<T, E> m_storage;
};

// Result of an operation with nothing to return but success.
template <typename E>
using Status = Result<Ok, E>;

}  // namespace velko
