// fastdelegate::FastDelegate2: a small, non-owning callable of two arguments.
//
// It holds an object pointer and a plain function that calls into that object, so binding and
// copying never allocate. It binds a free function, a member function of an object, or any
// callable object (a lambda held in a variable) by reference: whatever it is bound to must
// outlive it. An empty delegate tests false and must not be called.
#pragma once

#include <new>
#include <type_traits>

namespace fastdelegate {

template <typename Param1, typename Param2, typename Result>
class FastDelegate2 {
public:
    using FunctionType = Result (*)(Param1, Param2);

    FastDelegate2() = default;
    // NOLINTNEXTLINE: implicit, so a free function can be passed where a delegate is taken.
    FastDelegate2(FunctionType function) { bind(function); }
    template <typename Object>
    FastDelegate2(Object* object, Result (Object::*method)(Param1, Param2)) {
        bind(object, method);
    }
    // Binds a callable object (a lambda, a functor) by reference.
    template <typename Callable, typename = decltype(&Callable::operator()),
              typename = std::enable_if_t<!std::is_same<Callable, FastDelegate2>::value>>
    FastDelegate2(Callable& callable) {  // NOLINT: implicit on purpose, like a function
        m_object = &callable;
        m_invoke = [](const FastDelegate2& self, Param1 a, Param2 b) -> Result {
            return (*static_cast<Callable*>(self.m_object))(a, b);
        };
    }

    void bind(FunctionType function) {
        m_function = function;
        m_object = nullptr;
        m_invoke = function != nullptr ? &invokeFunction : nullptr;
    }
    template <typename Object>
    void bind(Object* object, Result (Object::*method)(Param1, Param2)) {
        static_assert(sizeof(method) <= sizeof(m_method), "member pointer does not fit");
        m_object = object;
        new (m_method)(Result(Object::*)(Param1, Param2))(method);
        m_invoke = [](const FastDelegate2& self, Param1 a, Param2 b) -> Result {
            auto* stored =
                reinterpret_cast<Result (Object::*const*)(Param1, Param2)>(self.m_method);
            return (static_cast<Object*>(self.m_object)->**stored)(a, b);
        };
    }
    void clear() { *this = FastDelegate2(); }

    bool empty() const { return m_invoke == nullptr; }
    explicit operator bool() const { return !empty(); }
    bool operator!() const { return empty(); }

    Result operator()(Param1 a, Param2 b) const { return m_invoke(*this, a, b); }

private:
    using Invoker = Result (*)(const FastDelegate2&, Param1, Param2);

    static Result invokeFunction(const FastDelegate2& self, Param1 a, Param2 b) {
        return self.m_function(a, b);
    }

    void* m_object = nullptr;
    FunctionType m_function = nullptr;
    // Room for a member function pointer (two words on the common ABIs, more for virtual bases).
    alignas(void*) unsigned char m_method[4 * sizeof(void*)] = {};
    Invoker m_invoke = nullptr;
};

}  // namespace fastdelegate
