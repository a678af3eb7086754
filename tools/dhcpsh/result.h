// A value or the reason there is none; std::expected is C++23 and we build as C++20.
#pragma once

#include <utility>
#include <variant>

namespace dhcpsh {

template <class E>
struct Failure {
    E error;
};
template <class E>
Failure(E) -> Failure<E>;

template <class T, class E>
class Result {
  public:
    Result(T value) : v_(std::in_place_index<0>, std::move(value)) {}
    template <class F>
    Result(Failure<F> failure) : v_(std::in_place_index<1>, std::move(failure.error)) {}

    bool ok() const { return v_.index() == 0; }
    explicit operator bool() const { return ok(); }

    T &value() & { return std::get<0>(v_); }
    const T &value() const & { return std::get<0>(v_); }
    T &&value() && { return std::get<0>(std::move(v_)); }
    T &operator*() & { return value(); }
    const T &operator*() const & { return value(); }
    T *operator->() { return &value(); }
    const T *operator->() const { return &value(); }

    const E &error() const { return std::get<1>(v_); }

  private:
    std::variant<T, E> v_;
};

}  // namespace dhcpsh
