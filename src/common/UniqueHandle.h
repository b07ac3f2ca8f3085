// One holder shape for every handle kind: get/reset/release/addressof, like
// std::unique_ptr, with the "invalid" value and the close call supplied by a
// traits struct. Each handle kind is a one-line alias at the place that uses it.
#pragma once

#include <utility>

namespace qv {

template <typename Traits>
class UniqueHandle {
public:
    using Type = typename Traits::Type;

    UniqueHandle() noexcept : m_value(Traits::Invalid()) {}
    explicit UniqueHandle(Type value) noexcept : m_value(value) {}
    ~UniqueHandle() { reset(); }

    UniqueHandle(const UniqueHandle&) = delete;
    UniqueHandle& operator=(const UniqueHandle&) = delete;
    UniqueHandle(UniqueHandle&& other) noexcept : m_value(other.release()) {}
    UniqueHandle& operator=(UniqueHandle&& other) noexcept {
        if (this != &other) reset(other.release());
        return *this;
    }

    Type get() const noexcept { return m_value; }
    bool valid() const noexcept { return m_value != Traits::Invalid(); }
    explicit operator bool() const noexcept { return valid(); }

    // Closes the current value (if any) and takes the new one.
    void reset(Type value = Traits::Invalid()) noexcept {
        Type old = m_value;
        m_value = value;
        if (old != Traits::Invalid()) Traits::Close(old);
    }
    Type release() noexcept {
        Type value = m_value;
        m_value = Traits::Invalid();
        return value;
    }
    // For out-parameters of create functions: closes the current value first.
    Type* addressof() noexcept {
        reset();
        return &m_value;
    }

private:
    Type m_value;
};

}  // namespace qv
