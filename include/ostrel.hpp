/**
 * @file ostrel.hpp
 * @brief Ostrel for C++: owners for every handle, errors as values, a checked
 * serializer, range-for iteration and callables instead of function pointers.
 *
 * Header-only, C++17 (descriptor literals are checked at compile time under
 * C++20). Everything here is an inline layer over the exported C functions of
 * the other public headers: it adds no symbol to libOstrel and changes no C
 * behaviour. Every operation behaves as the C function it calls; what the
 * layer adds is stated with each type.
 *
 * - Owners (ostrel::list, ostrel::table, ostrel::writer, ostrel::reader,
 *   ostrel::connection, ostrel::listener, ostrel::thread_group and the
 *   iterator owners) are move-only. The destructor destroys or closes the
 *   handle; get() gives the raw handle for C calls, release() gives it up.
 * - Errors are values: a std::error_code in the category named "ostrel"
 *   (ostrel::category()), or an ostrel::result<T> that carries a value or a
 *   code. Nothing in this layer throws, except the opt-in helpers
 *   ostrel::throw_if_error() and result<T>::value_or_throw().
 * - The serializer takes C++ values: the descriptor of every item is built
 *   from the argument's type, so a value can never be paired with the wrong
 *   descriptor letter, a missing array count or a string buffer without its
 *   size. A descriptor written by the caller (writef, readf) is checked
 *   against the argument types: at compile time under C++20 (a mismatch does
 *   not compile), and before any C call under C++17 (0x90013).
 * - Callbacks are callables: a listen is served by a lambda, thread-group
 *   threads run lambdas, a service's start function is a lambda. A callable
 *   must not let an exception escape: the C library calls it, so an escaping
 *   exception ends the process (std::terminate).
 *
 * Threading is the C library's: a handle is used by one thread at a time,
 * except where a type says otherwise (listener::stop()).
 *
 * Where the layer itself allocates (a std::string_view written, an array of
 * writers, a std::string or std::vector destination, a callable handed to a
 * thread or a listen), it does so as the standard library does; a failed
 * std::vector or std::string allocation inside a noexcept call ends the
 * process.
 */
#ifndef OSTREL_HPP
#define OSTREL_HPP

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "ostrel_common.h"
#include "ostrel_error.h"
#include "ostrel_ervix.h"
#include "ostrel_list.h"
#include "ostrel_memory.h"
#include "ostrel_netbase.h"
#include "ostrel_serializer.h"
#include "ostrel_service.h"
#include "ostrel_table.h"
#include "ostrel_threadgroup.h"

#if (defined(__cpp_consteval) && __cpp_consteval >= 201811L) || \
    (defined(__clang__) && __clang_major__ >= 14 && __cplusplus >= 202002L)
/** 1 when descriptor literals are checked at compile time (C++20). */
#define OSTREL_CONSTEVAL_DESCRIPTORS 1
#else
#define OSTREL_CONSTEVAL_DESCRIPTORS 0
#endif

#if defined(__GNUC__)
/** Inlines the layer's glue into the caller, so that a typed call costs what the C call costs. */
#define OSTREL_FORCE_INLINE __attribute__((always_inline))
#else
#define OSTREL_FORCE_INLINE
#endif

namespace ostrel {

// ============================================================================
// Errors
// ============================================================================

/** Codes of Ostrel's own module (9) that its functions return. */
enum class errc : uint32_t {
    unknown = OSL_ERR_UNKNOWN,                     /**< 0x90001 "Unknown error." (socket or system call) */
    unimplemented = OSL_ERR_UNIMPLEMENTED,         /**< 0x90002 "Unimplemented function." */
    buffer_too_small = OSL_ERR_BUFFER_TOO_SMALL,   /**< 0x90004 "Buffer too small." */
    no_memory = OSL_ERR_NO_MEMORY,                 /**< 0x90006 "Not enough memory." */
    not_empty = OSL_ERR_NOT_EMPTY,                 /**< 0x90008 "Not empty." */
    user_canceled = OSL_ERR_USER_CANCELED,         /**< 0x9000B "User canceled." */
    invalid_parameter = OSL_ERR_INVALID_PARAMETER, /**< 0x9000F "Invalid parameter." */
    invalid_handle = OSL_ERR_INVALID_HANDLE,       /**< 0x90010 "Invalid handle." */
    invalid_length = OSL_ERR_INVALID_LENGTH,       /**< 0x90011 "Invalid length." */
    invalid_data = OSL_ERR_INVALID_DATA,           /**< 0x90012 "Invalid data content." */
    invalid_format = OSL_ERR_INVALID_FORMAT,       /**< 0x90013 "Invalid format." */
    invalid_status = OSL_ERR_INVALID_STATUS,       /**< 0x90014 "Invalid status." */
    invalid_command = OSL_ERR_INVALID_COMMAND,     /**< 0x90016 "Invalid command." */
    not_found = OSL_ERR_NOT_FOUND,                 /**< 0x90018 "Can not find specified item(node,element)." */
    system_busy = OSL_ERR_SYSTEM_BUSY,             /**< 0x90026 "System busy." (table being iterated) */
    duplicate_key = OSL_ERR_DUPLICATE_KEY,         /**< 0x9002A "Duplicate key." */
};

} // namespace ostrel

namespace std {
/** ostrel::errc values compare with std::error_code. */
template <>
struct is_error_code_enum<ostrel::errc> : true_type {};
} // namespace std

namespace ostrel {

/**
 * The text of an error code. Codes of a module other than 0 and 9 whose
 * module has registered a text for them in the error-info registry
 * (Ervix_Register) give that text as stored, tag included ("[mod]text");
 * every other code gives Ostrel_GetErrorText(code). Never null, never to be
 * freed.
 */
inline const char *error_text(uint32_t code) noexcept {
    const uint32_t module = code >> 16;
    if (module != OSL_MODULE_BASE && module != OSL_MODULE_OSTREL && module <= OSL_MODULE_MAX) {
        const char *text = Ervix_GetErrInfoExEN(code);
        if (std::strcmp(text, "[ERVIX]Unregisted errno.") != 0) return text;
    }
    return Ostrel_GetErrorText(code);
}

namespace detail {
class category_impl final : public std::error_category {
public:
    const char *name() const noexcept override { return "ostrel"; }
    std::string message(int value) const override { return error_text(static_cast<uint32_t>(value)); }
};
} // namespace detail

namespace detail {
inline const category_impl category_instance{}; // constant-initialized: no guard on use
} // namespace detail

/** The error category of every Ostrel code: name() "ostrel", message() error_text(). */
inline const std::error_category &category() noexcept { return detail::category_instance; }

/** A 32-bit Ostrel code as a std::error_code (0: no error). */
inline std::error_code make_error_code(uint32_t code) noexcept {
    return std::error_code(static_cast<int>(code), category());
}

/** An errc value as a std::error_code. */
inline std::error_code make_error_code(errc e) noexcept { return make_error_code(static_cast<uint32_t>(e)); }

/**
 * The 32-bit code of an error: its value in the "ostrel" category, 0 for no
 * error, and 0x90001 (Unknown error) for an error of another category.
 */
inline uint32_t to_code(const std::error_code &ec) noexcept {
    if (!ec) return 0;
    return ec.category() == category() ? static_cast<uint32_t>(ec.value()) : OSL_ERR_UNKNOWN;
}

#if defined(__cpp_exceptions)
/** Opt-in throwing helper: throws std::system_error when ec holds an error. */
inline void throw_if_error(const std::error_code &ec) {
    if (ec) throw std::system_error(ec);
}
#endif

/**
 * A value or an error code. Operations that produce a value return one;
 * test it (explicit operator bool) before taking the value. value() on a
 * result that holds an error is a precondition violation (nothing is thrown).
 */
template <class T>
class [[nodiscard]] result {
public:
    /** A result holding a value. */
    result(T value) : value_(std::move(value)) {}
    /** A result holding an error; ec must hold an error. */
    result(std::error_code ec) : error_(ec) {}
    /** A result holding an error; ec must hold an error. */
    result(errc e) : error_(make_error_code(e)) {}

    /** True when a value is held. */
    bool has_value() const noexcept { return value_.has_value(); }
    /** True when a value is held. */
    explicit operator bool() const noexcept { return value_.has_value(); }
    /** The error (empty when a value is held). */
    std::error_code error() const noexcept { return error_; }

    /** The value; the result must hold one. */
    T &value() & noexcept { return *value_; }
    /** The value; the result must hold one. */
    const T &value() const & noexcept { return *value_; }
    /** The value, moved out; the result must hold one. */
    T &&value() && noexcept { return std::move(*value_); }
    /** The value; the result must hold one. */
    T &operator*() & noexcept { return *value_; }
    /** The value; the result must hold one. */
    const T &operator*() const & noexcept { return *value_; }
    /** Member access to the value; the result must hold one. */
    T *operator->() noexcept { return &*value_; }
    /** Member access to the value; the result must hold one. */
    const T *operator->() const noexcept { return &*value_; }

    /** The value, or fallback when an error is held. */
    template <class U>
    T value_or(U &&fallback) const & {
        return value_ ? *value_ : static_cast<T>(std::forward<U>(fallback));
    }
    /** The value moved out, or fallback when an error is held. */
    template <class U>
    T value_or(U &&fallback) && {
        return value_ ? std::move(*value_) : static_cast<T>(std::forward<U>(fallback));
    }
#if defined(__cpp_exceptions)
    /** Opt-in throwing helper: the value, or std::system_error with the code. */
    T value_or_throw() && {
        throw_if_error(error_);
        return std::move(*value_);
    }
#endif

private:
    std::optional<T> value_;
    std::error_code error_;
};

namespace detail {
inline std::error_code ec(uint32_t code) noexcept { return make_error_code(code); }

// Builds a result from a C call's code and the value it produced.
template <class T>
result<T> make_result(uint32_t code, T &&value) {
    if (code != 0) return result<T>(make_error_code(code));
    return result<T>(std::forward<T>(value));
}

// What a callable's result means as a code: nothing (0), an error_code, an
// errc or an integral code.
template <class R>
uint32_t code_of(R &&r) noexcept {
    using D = std::decay_t<R>;
    if constexpr (std::is_same_v<D, std::error_code>)
        return to_code(r);
    else if constexpr (std::is_same_v<D, errc>)
        return static_cast<uint32_t>(r);
    else {
        static_assert(std::is_integral_v<D> && !std::is_same_v<D, bool>,
                      "ostrel: a callable returns void, std::error_code, ostrel::errc or an integral code");
        return static_cast<uint32_t>(r);
    }
}

template <class F, class... A>
uint32_t invoke_code(F &f, A &&...a) noexcept {
    if constexpr (std::is_void_v<std::invoke_result_t<F &, A...>>) {
        f(std::forward<A>(a)...);
        return 0;
    } else {
        return code_of(f(std::forward<A>(a)...));
    }
}

template <class T>
struct type_identity {
    using type = T;
};
template <class T>
using type_identity_t = typename type_identity<T>::type;
template <class T>
using clean_t = std::remove_cv_t<std::remove_reference_t<T>>;
template <class>
inline constexpr bool dependent_false = false;

// Timeouts in milliseconds for the C calls, clamped to the C type's range.
inline uint32_t ms_u32(std::chrono::milliseconds t) noexcept {
    const auto n = t.count();
    return n <= 0 ? 0u : n >= static_cast<long long>(UINT32_MAX) ? UINT32_MAX : static_cast<uint32_t>(n);
}
inline int32_t ms_i32(std::chrono::milliseconds t) noexcept {
    const auto n = t.count();
    return n <= 0 ? 0 : n >= static_cast<long long>(INT32_MAX) ? INT32_MAX : static_cast<int32_t>(n);
}
} // namespace detail

// ============================================================================
// Views and small helpers
// ============================================================================

/**
 * A view of bytes: a data pointer and a size, owned by someone else. Made
 * from a pointer and a size or from a std::string_view (without its NUL);
 * with_nul() makes one that includes a C string's terminating NUL.
 */
class byte_view {
public:
    /** An empty view. */
    constexpr byte_view() noexcept = default;
    /** A view of size bytes at data. */
    constexpr byte_view(const void *data, size_t size) noexcept : data_(data), size_(size) {}
    /** The characters of a string view. */
    constexpr byte_view(std::string_view s) noexcept : data_(s.data()), size_(s.size()) {}
    /** The characters of a NUL-terminated string, without the NUL (empty for null). */
    byte_view(const char *s) noexcept : data_(s), size_(s ? std::strlen(s) : 0) {}
    /** The characters of a string, without a NUL. */
    byte_view(const std::string &s) noexcept : data_(s.data()), size_(s.size()) {}
    /** The bytes of a contiguous container of bytes (std::vector<unsigned char>, std::array...). */
    template <class C, class E = std::remove_pointer_t<decltype(std::declval<const C &>().data())>,
              class = std::enable_if_t<sizeof(E) == 1 && std::is_trivially_copyable_v<E> &&
                                       !std::is_convertible_v<const C &, std::string_view>>>
    byte_view(const C &c) noexcept : data_(c.data()), size_(c.size()) {}
    /** The bytes of a NUL-terminated string, NUL included (empty for null). */
    static byte_view with_nul(const char *s) noexcept { return s ? byte_view(s, std::strlen(s) + 1) : byte_view(); }

    /** The first byte. */
    constexpr const void *data() const noexcept { return data_; }
    /** The number of bytes or elements. */
    constexpr size_t size() const noexcept { return size_; }
    /** True when the view is empty. */
    constexpr bool empty() const noexcept { return size_ == 0; }
    /** The bytes as unsigned char. */
    const unsigned char *bytes() const noexcept { return static_cast<const unsigned char *>(data_); }
    /** The bytes as a string view (a trailing NUL, if any, is part of it). */
    std::string_view str() const noexcept { return size_ ? std::string_view(static_cast<const char *>(data_), size_) : std::string_view(); }

private:
    const void *data_ = nullptr;
    size_t size_ = 0;
};

/**
 * A contiguous run of T owned by someone else (std::span for C++17). Made
 * from a pointer and a count, a C array, or any container with data() and
 * size() (std::vector, std::array, std::span).
 */
template <class T>
class span {
public:
    /** The element type, as given. */
    using element_type = T;
    /** The element type without const. */
    using value_type = std::remove_cv_t<T>;
    /** An empty span. */
    constexpr span() noexcept = default;
    /** size elements from data. */
    constexpr span(T *data, size_t size) noexcept : data_(data), size_(size) {}
    template <size_t N>
    /** The elements of a C array. */
    constexpr span(T (&a)[N]) noexcept : data_(a), size_(N) {}
    /** The elements of a container with data() and size(). */
    template <class C, class = std::enable_if_t<!std::is_same_v<std::decay_t<C>, span> &&
                                                std::is_convertible_v<decltype(std::declval<C &>().data()), T *>>>
    constexpr span(C &&c) noexcept : data_(c.data()), size_(c.size()) {}

    /** The first element. */
    constexpr T *data() const noexcept { return data_; }
    /** The number of bytes or elements. */
    constexpr size_t size() const noexcept { return size_; }
    /** True when the view is empty. */
    constexpr bool empty() const noexcept { return size_ == 0; }
    /** Iteration from the first element. */
    constexpr T *begin() const noexcept { return data_; }
    /** Iteration end. */
    constexpr T *end() const noexcept { return data_ + size_; }
    /** Element i (unchecked). */
    constexpr T &operator[](size_t i) const noexcept { return data_[i]; }

private:
    T *data_ = nullptr;
    size_t size_ = 0;
};

/** A NUL-terminated string argument: a const char * or a std::string. */
class zstring {
public:
    /** A C string (kept as the pointer). */
    zstring(const char *s) noexcept : s_(s) {}
    /** A std::string (its c_str(); the string must outlive the call). */
    zstring(const std::string &s) noexcept : s_(s.c_str()) {}
    /** The NUL-terminated text. */
    const char *c_str() const noexcept { return s_; }

private:
    const char *s_;
};

/** Deleter for memory from the debug allocator (Ostrel_Free). */
struct mem_free {
    /** Releases p with Ostrel_Free. */
    void operator()(const void *p) const noexcept { Ostrel_Free(const_cast<void *>(p)); }
};

/** Memory from the debug allocator, released with Ostrel_Free. */
template <class T>
using malloc_ptr = std::unique_ptr<T, mem_free>;

/** A string read into new memory ("@Ns"); null for a NULL string. */
using malloc_string = malloc_ptr<char[]>;

/** Elements read into new memory ("@Na?"): the block and its element count. */
template <class T>
struct malloc_array {
    malloc_ptr<T[]> data; /**< null for an empty or a null array */
    uint32_t size = 0;    /**< element count */
};

/** Storage mode of list nodes and table values. */
enum class storage : int {
    reference = NODE_STORAGE_REFERENCE, /**< keep the caller's pointer and length */
    copy = NODE_STORAGE_COPY,           /**< keep an own copy of the bytes */
};

namespace detail {
// Range-for over an iterator owner O: O provides step(), done_ and current_.
struct walk_end {};
template <class O>
class walk_position {
public:
    using value_type = typename O::entry_type;
    explicit walk_position(O *o) noexcept : o_(o) {}
    const value_type &operator*() const noexcept { return o_->current_; }
    const value_type *operator->() const noexcept { return &o_->current_; }
    walk_position &operator++() noexcept {
        o_->step();
        return *this;
    }
    bool operator==(walk_end) const noexcept { return o_->done_; }
    bool operator!=(walk_end) const noexcept { return !o_->done_; }

private:
    O *o_;
};

// A move-only raw handle that is released by Release(handle) when set.
template <class H, uint32_t (*Release)(H)>
class unique_handle {
public:
    /** An empty owner, holding no handle. */
    unique_handle() noexcept = default;
    explicit unique_handle(H h) noexcept : h_(h) {}
    unique_handle(unique_handle &&o) noexcept : h_(std::exchange(o.h_, H())) {}
    unique_handle &operator=(unique_handle &&o) noexcept {
        if (this != &o) reset(std::exchange(o.h_, H()));
        return *this;
    }
    ~unique_handle() { reset(); }
    H get() const noexcept { return h_; }
    H release() noexcept { return std::exchange(h_, H()); }
    /** Releases the held handle (if any) and holds h; returns the release code. */
    uint32_t reset(H h = H()) noexcept {
        const H old = std::exchange(h_, h);
        return old ? Release(old) : 0;
    }
    H *out() noexcept { return &h_; }

private:
    H h_ = H();
};

// The accessors every owner of one handle shares: the raw handle, giving it
// up, and whether one is held.
template <class H, uint32_t (*Release)(H)>
class handle_owner {
public:
    /** The raw handle, for C calls (null when empty). */
    H get() const noexcept { return h_.get(); }
    /** Gives the handle up: the owner is left empty and the caller releases the handle. */
    H release() noexcept { return h_.release(); }
    /** True when a handle is held. */
    explicit operator bool() const noexcept { return h_.get() != nullptr; }

protected:
    handle_owner() noexcept = default;
    explicit handle_owner(H h) noexcept : h_(h) {}
    unique_handle<H, Release> h_;
};

inline uint32_t close_thread_group(OstrelThreadGroupHandle h) {
    Ostrel_ThreadGroup_CancelAll(h);
    return Ostrel_ThreadGroup_Destroy(h);
}
} // namespace detail

// ============================================================================
// Linked list
// ============================================================================

/** One node met by a list iteration: its handle and its bytes. */
struct list_entry {
    OstrelNodeHandle node = nullptr; /**< for list::erase() */
    byte_view value;                 /**< the node's data (the list's copy in copy mode) */
};

/**
 * Owner of a list iterator handle (Ostrel_List_EndIterate on destruction),
 * and a range: `for (const list_entry &e : lst.walk())`. A step that fails
 * ends the walk and leaves its code in error(). Inside the loop the node just
 * returned may be erased (the iterator already stands on the next one);
 * erasing any other node of the list during the walk is not allowed.
 */
class list_iterator : public detail::handle_owner<OstrelIterHandle, Ostrel_List_EndIterate> {
public:
    /** What the walk yields. */
    using entry_type = list_entry;
    /** An empty owner, holding no handle. */
    list_iterator() noexcept = default;
    /** Adopts an iterator handle. */
    explicit list_iterator(OstrelIterHandle h) noexcept : handle_owner(h) {}
    /** Takes the walk over; the source is left empty. */
    list_iterator(list_iterator &&) noexcept = default;
    /** Closes this walk and takes the other over. */
    list_iterator &operator=(list_iterator &&) noexcept = default;

    /** Starts the walk (first step) and gives its position. */
    detail::walk_position<list_iterator> begin() noexcept {
        if (!started_) step();
        return detail::walk_position<list_iterator>(this);
    }
    /** The end of the walk. */
    detail::walk_end end() const noexcept { return {}; }

    /** One step: the next entry, an empty optional at the end, or the code. */
    result<std::optional<list_entry>> next() noexcept {
        step();
        if (error_) return error_;
        return done_ ? std::optional<list_entry>() : std::optional<list_entry>(current_);
    }
    /** The code of the step that failed, if any. */
    std::error_code error() const noexcept { return error_; }

private:
    friend class detail::walk_position<list_iterator>;
    friend class list;
    void step() noexcept {
        started_ = true;
        if (done_) return;
        void *data = nullptr;
        int32_t len = 0;
        uint32_t end = 0;
        OstrelNodeHandle node = nullptr;
        const uint32_t rc = Ostrel_List_IterateEx(h_.get(), &node, &data, &len, &end);
        if (rc != 0 || end != 0) {
            error_ = detail::ec(rc);
            done_ = true;
            return;
        }
        current_ = list_entry{node, byte_view(data, len > 0 ? static_cast<size_t>(len) : 0)};
    }
    list_entry current_;
    std::error_code error_;
    bool started_ = false, done_ = false;
};

/**
 * Owner of a list handle (Ostrel_List_Destroy on destruction). Lengths are
 * checked to fit the list's signed 32-bit lengths before any C call.
 */
class list : public detail::handle_owner<OstrelListHandle, Ostrel_List_Destroy> {
public:
    /** An empty owner, holding no handle. */
    list() noexcept = default;
    /** Adopts a list handle. */
    explicit list(OstrelListHandle h) noexcept : handle_owner(h) {}

    /** Creates an empty list in the given storage mode. */
    static result<list> create(storage mode = storage::copy) noexcept {
        list l;
        const uint32_t rc = Ostrel_List_Create(l.h_.out(), static_cast<int>(mode));
        return detail::make_result(rc, std::move(l));
    }
    /** Appends a node at the tail (in copy mode the bytes are copied). */
    std::error_code push_back(byte_view value) noexcept {
        if (value.size() > static_cast<size_t>(INT32_MAX)) return make_error_code(errc::invalid_parameter);
        return detail::ec(Ostrel_List_AddNode(h_.get(), value.data(), static_cast<int32_t>(value.size()), nullptr));
    }
    /** The number of nodes. */
    result<uint32_t> size() const noexcept {
        uint32_t n = 0;
        const uint32_t rc = Ostrel_List_GetCount(h_.get(), nullptr, &n);
        return detail::make_result(rc, std::move(n));
    }
    /** The bytes of the node at a 0-based position (0x90018 past the end). */
    result<byte_view> at(size_t index) const noexcept {
        if (index > static_cast<size_t>(INT32_MAX)) return errc::not_found;
        void *data = nullptr;
        int32_t len = 0;
        const uint32_t rc = Ostrel_List_GetNode(h_.get(), static_cast<int32_t>(index), &data, &len);
        return detail::make_result(rc, byte_view(data, len > 0 ? static_cast<size_t>(len) : 0));
    }
    /** Unlinks and frees one node (from a list_entry). */
    static std::error_code erase(OstrelNodeHandle node) noexcept { return detail::ec(Ostrel_List_DelNode(node)); }
    /** A walk from the first node; an empty walk holding the code when it cannot start. */
    list_iterator walk() noexcept {
        list_iterator it;
        const uint32_t rc = Ostrel_List_BeginIterate(h_.get(), it.h_.out());
        if (rc != 0) {
            it.error_ = detail::ec(rc);
            it.done_ = it.started_ = true;
        }
        return it;
    }
};

// ============================================================================
// Keyed table
// ============================================================================

/** Visiting orders of a table walk. */
enum class order : uint32_t {
    bucket = TABLE_ITERATE_BUCKET,     /**< hash buckets upwards */
    forward = TABLE_ITERATE_FORWARD,   /**< sorted list, head to tail */
    backward = TABLE_ITERATE_BACKWARD, /**< sorted list, tail to head */
};

/** Key kind of a table of NUL-terminated string keys (string_table). */
struct string_key {
    using arg_type = zstring;           /**< how a key is passed */
    using view_type = std::string_view; /**< how a walk yields it (strlen of the key) */
    /** Adds a node (the C add of this key kind). */
    static uint32_t add(void *t, arg_type k, const void *v, uint32_t n) { return Ostrel_Table_String_AddNode(t, k.c_str(), v, n); }
    /** Looks a key up (the C get of this key kind). */
    static uint32_t get(void *t, arg_type k, void **v, uint32_t *n) { return Ostrel_Table_String_GetNode(t, k.c_str(), v, n); }
    /** Replaces a value (the C update of this key kind). */
    static uint32_t update(void *t, arg_type k, const void *v, uint32_t n) { return Ostrel_Table_String_UpdateNode(t, k.c_str(), v, n); }
    /** Deletes a key (the C delete of this key kind). */
    static uint32_t del(void *t, arg_type k) { return Ostrel_Table_String_DelNode(t, k.c_str()); }
    /** One iteration step; end is set when the walk is over. */
    static uint32_t step(void *it, view_type &k, void **v, uint32_t *n, bool &end) {
        const char *key = nullptr;
        const uint32_t rc = Ostrel_Table_String_Iterate(it, &key, v, n);
        end = key == nullptr;
        if (key) k = key;
        return rc;
    }
};

/** Key kind of a table of pointer-value keys (pointer_table); null is a key. */
struct pointer_key {
    using arg_type = const void *;  /**< how a key is passed */
    using view_type = const void *; /**< how a walk yields it */
    /** Adds a node (the C add of this key kind). */
    static uint32_t add(void *t, arg_type k, const void *v, uint32_t n) { return Ostrel_Table_Pointer_AddNode(t, k, v, n); }
    /** Looks a key up (the C get of this key kind). */
    static uint32_t get(void *t, arg_type k, void **v, uint32_t *n) { return Ostrel_Table_Pointer_GetNode(t, k, v, n); }
    /** Replaces a value (the C update of this key kind). */
    static uint32_t update(void *t, arg_type k, const void *v, uint32_t n) { return Ostrel_Table_Pointer_UpdateNode(t, k, v, n); }
    /** Deletes a key (the C delete of this key kind). */
    static uint32_t del(void *t, arg_type k) { return Ostrel_Table_Pointer_DelNode(t, k); }
    /** One iteration step; end is set when the walk is over. */
    static uint32_t step(void *it, view_type &k, void **v, uint32_t *n, bool &end) {
        // A null key is a key here: the end is a step that wrote no value.
        static char unwritten;
        *v = &unwritten;
        const uint32_t rc = Ostrel_Table_Pointer_Iterate(it, &k, v, n);
        end = k == nullptr && *v == &unwritten;
        return rc;
    }
};

/** Key kind of a table of byte-array keys (bytes_table). */
struct bytes_key {
    using arg_type = byte_view;  /**< how a key is passed */
    using view_type = byte_view; /**< how a walk yields it (with its length) */
    /** Adds a node (the C add of this key kind). */
    static uint32_t add(void *t, arg_type k, const void *v, uint32_t n) { return Ostrel_Table_ByteArray_AddNode(t, k.data(), len(k), v, n); }
    /** Looks a key up (the C get of this key kind). */
    static uint32_t get(void *t, arg_type k, void **v, uint32_t *n) { return Ostrel_Table_ByteArray_GetNode(t, k.data(), len(k), v, n); }
    /** Replaces a value (the C update of this key kind). */
    static uint32_t update(void *t, arg_type k, const void *v, uint32_t n) {
        return Ostrel_Table_ByteArray_UpdateNode(t, k.data(), len(k), v, n);
    }
    /** Deletes a key (the C delete of this key kind). */
    static uint32_t del(void *t, arg_type k) { return Ostrel_Table_ByteArray_DelNode(t, k.data(), len(k)); }
    /** One iteration step; end is set when the walk is over. */
    static uint32_t step(void *it, view_type &k, void **v, uint32_t *n, bool &end) {
        const void *key = nullptr;
        uint32_t klen = 0;
        const uint32_t rc = Ostrel_Table_ByteArray_Iterate(it, &key, &klen, v, n);
        end = key == nullptr;
        k = byte_view(key, klen);
        return rc;
    }
    /** A key length as the C calls take it (sizes beyond 32 bits saturate). */
    static uint32_t len(arg_type k) { return k.size() > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(k.size()); }
};

template <class K>
class table_iterator; // below

/**
 * One node met by a table walk: its key and value views, and the deferred
 * actions on it. erase() and update() mark the node the walk returned last
 * (in a range-for: the current one); the mark is carried out when the walk
 * steps on or is closed, so the walk never loses its place. A later mark
 * replaces an earlier one. update() copies the bytes at once.
 */
template <class K>
struct table_entry {
    typename K::view_type key{};
    byte_view value;
    table_iterator<K> *walk = nullptr;
    /** Marks this node for deletion (Ostrel_Table_IterateDel). */
    std::error_code erase() const noexcept { return walk->erase_current(); }
    /** Marks this node for a new value (Ostrel_Table_IterateUpdate). */
    std::error_code update(byte_view v) const noexcept { return walk->update_current(v); }
};

/**
 * Owner of a table iterator handle (Ostrel_Table_EndIterate on destruction,
 * which carries out the last mark) and a range:
 * `for (const auto &e : tbl.walk(ostrel::order::forward)) if (...) e.erase();`.
 * A step that fails ends the walk and leaves its code in error(). While any
 * walk is open the table refuses adds, updates, deletes and destruction.
 */
template <class K>
class table_iterator : public detail::handle_owner<OstrelTableIterHandle, Ostrel_Table_EndIterate> {
public:
    /** What the walk yields. */
    using entry_type = table_entry<K>;
    /** An empty owner, holding no handle. */
    table_iterator() noexcept = default;
    /** Adopts an iterator handle of a table of key kind K. */
    explicit table_iterator(OstrelTableIterHandle h) noexcept : handle_owner(h) {}
    /** Takes the walk over; the source is left empty. */
    table_iterator(table_iterator &&o) noexcept
        : handle_owner(std::move(o)), current_(o.current_), error_(o.error_), started_(o.started_), done_(o.done_) {
        current_.walk = this;
    }
    /** Closes this walk and takes the other over. */
    table_iterator &operator=(table_iterator &&o) noexcept {
        h_ = std::move(o.h_);
        current_ = o.current_;
        current_.walk = this;
        error_ = o.error_;
        started_ = o.started_;
        done_ = o.done_;
        return *this;
    }

    /** Starts the walk (first step) and gives its position. */
    detail::walk_position<table_iterator> begin() noexcept {
        if (!started_) step();
        return detail::walk_position<table_iterator>(this);
    }
    /** The end of the walk. */
    detail::walk_end end() const noexcept { return {}; }

    /** One step: the next entry, an empty optional at the end, or the code. */
    result<std::optional<table_entry<K>>> next() noexcept {
        step();
        if (error_) return error_;
        return done_ ? std::optional<table_entry<K>>() : std::optional<table_entry<K>>(current_);
    }
    /** Marks the node returned last for deletion (0x90018 before the first step). */
    std::error_code erase_current() noexcept { return detail::ec(Ostrel_Table_IterateDel(h_.get())); }
    /** Marks the node returned last for a new value, copied at once. */
    std::error_code update_current(byte_view v) noexcept {
        if (v.size() > UINT32_MAX) return make_error_code(errc::invalid_parameter);
        return detail::ec(Ostrel_Table_IterateUpdate(h_.get(), v.data(), static_cast<uint32_t>(v.size())));
    }
    /** Carries out the last mark and closes the iterator now. */
    std::error_code close() noexcept {
        done_ = true;
        return detail::ec(h_.reset());
    }
    /** The code of the step that failed, if any. */
    std::error_code error() const noexcept { return error_; }

private:
    friend class detail::walk_position<table_iterator>;
    template <class>
    friend class table;
    void step() noexcept {
        started_ = true;
        if (done_) return;
        void *value = nullptr;
        uint32_t len = 0;
        bool end = false;
        typename K::view_type key{};
        const uint32_t rc = K::step(h_.get(), key, &value, &len, end);
        if (rc != 0 || end) {
            error_ = detail::ec(rc);
            done_ = true;
            return;
        }
        current_ = table_entry<K>{key, byte_view(value, len), this};
    }
    table_entry<K> current_;
    std::error_code error_;
    bool started_ = false, done_ = false;
};

/**
 * Owner of a table handle (Ostrel_Table_Destroy on destruction; close every
 * walk first, since a table being walked refuses destruction). K fixes the
 * key kind, so only the matching family of C functions is ever called.
 * Values are byte views; their sizes are checked to fit 32 bits.
 */
template <class K>
class table : public detail::handle_owner<OstrelTableHandle, Ostrel_Table_Destroy> {
public:
    /** How a key is passed. */
    using key_arg = typename K::arg_type;
    /** An empty owner, holding no handle. */
    table() noexcept = default;
    /** Adopts a table handle. */
    explicit table(OstrelTableHandle h) noexcept : handle_owner(h) {}

    /** Creates an empty table of `range` buckets (1 .. TABLE_RANGE_MAX). */
    static result<table> create(uint32_t range, storage mode = storage::copy) noexcept {
        table t;
        const uint32_t rc = Ostrel_Table_Create(t.h_.out(), range, static_cast<int>(mode));
        return detail::make_result(rc, std::move(t));
    }
    /** Keeps the table in key order (allowed while it is empty). */
    std::error_code sort_by_key() noexcept { return set_property(TABLE_PROP_SORT_FUNCTION, 0); }
    /** Sets one TABLE_PROP_* property. */
    std::error_code set_property(int32_t property, uintptr_t value) noexcept {
        return detail::ec(Ostrel_Table_SetProperty(h_.get(), property, value));
    }
    /** The number of nodes. */
    result<uint32_t> size() const noexcept {
        uint32_t n = 0;
        const uint32_t rc = Ostrel_Table_GetCount(h_.get(), &n);
        return detail::make_result(rc, std::move(n));
    }
    /** Adds a node; 0x9002A when the key exists. */
    std::error_code add(key_arg key, byte_view value) noexcept {
        if (value.size() > UINT32_MAX) return make_error_code(errc::invalid_parameter);
        return detail::ec(K::add(h_.get(), key, value.data(), static_cast<uint32_t>(value.size())));
    }
    /** Replaces the value of an existing key; 0x90018 when it is missing. */
    std::error_code update(key_arg key, byte_view value) noexcept {
        if (value.size() > UINT32_MAX) return make_error_code(errc::invalid_parameter);
        return detail::ec(K::update(h_.get(), key, value.data(), static_cast<uint32_t>(value.size())));
    }
    /** Adds the key, or replaces its value when it exists. */
    std::error_code put(key_arg key, byte_view value) noexcept {
        const std::error_code e = add(key, value);
        return e == errc::duplicate_key ? update(key, value) : e;
    }
    using handle_owner::get; // the raw handle, beside the lookup below
    /** The value of a key (the node's own storage in copy mode). */
    result<byte_view> get(key_arg key) const noexcept {
        void *value = nullptr;
        uint32_t len = 0;
        const uint32_t rc = K::get(h_.get(), key, &value, &len);
        return detail::make_result(rc, byte_view(value, len));
    }
    /** Deletes a key; 0x90018 when it is missing. */
    std::error_code erase(key_arg key) noexcept { return detail::ec(K::del(h_.get(), key)); }
    /** A walk in the given order; an empty walk holding the code when it cannot start. */
    table_iterator<K> walk(order o = order::forward) noexcept {
        table_iterator<K> it;
        const uint32_t rc = Ostrel_Table_BeginIterate(h_.get(), it.h_.out(), static_cast<uint32_t>(o));
        if (rc != 0) {
            it.error_ = detail::ec(rc);
            it.done_ = it.started_ = true;
        }
        return it;
    }
};

using string_table = table<string_key>;   /**< a table of string keys */
using pointer_table = table<pointer_key>; /**< a table of pointer keys */
using bytes_table = table<bytes_key>;     /**< a table of byte-array keys */

// ============================================================================
// Serializer: how C++ types become items and descriptors
// ============================================================================

class writer; // below
class reader; // below

/**
 * An item with its index, for packets in unordered mode: at(3, value) writes
 * value as item 3, at(3, variable) reads item 3 into variable. In one call
 * either every item carries an index or none does.
 */
template <class T>
struct at_t {
    uint32_t index;
    T &ref;
};
/** Pairs an index (1 .. 255) with a value or a destination. */
template <class T>
at_t<std::remove_reference_t<T>> at(uint32_t index, T &&value) noexcept {
    return {index, value};
}

/**
 * A null array: no elements but a count, written with the '#' prefix. Read
 * back, it gives an empty array.
 */
template <class T>
struct null_array {
    uint32_t count;
};

namespace detail {
// What one item's descriptor holds. kind: writing 'w' ('%', '@' or '#' all
// mean the same) or '#' (a null array, which needs '#'); reading '%' copy,
// '@' reference, 'N' new memory ("@N").
struct shape {
    char letter;
    bool array;
    char kind;
};

inline char unread_marker; // address stored in outputs to tell "not written"

template <class T>
constexpr bool is_int_v = (std::is_integral_v<T> && !std::is_same_v<T, bool>) || std::is_enum_v<T>;
template <class T>
constexpr char int_letter() {
    static_assert(sizeof(T) == 1 || sizeof(T) == 2 || sizeof(T) == 4 || sizeof(T) == 8, "ostrel: integer width");
    return sizeof(T) == 1 ? 'c' : sizeof(T) == 2 ? 'h' : sizeof(T) == 4 ? 'd' : 'l';
}
template <class T>
constexpr bool is_char_v = std::is_same_v<std::remove_cv_t<T>, char>;
// A pointer value item: any object pointer but a string or a serializer handle.
template <class T>
constexpr bool is_ptr_value_v =
    std::is_pointer_v<T> && (std::is_object_v<std::remove_pointer_t<T>> || std::is_void_v<std::remove_pointer_t<T>>) &&
    !is_char_v<std::remove_pointer_t<T>> &&
    !std::is_same_v<std::remove_cv_t<std::remove_pointer_t<T>>, Ostrel_Serializer>;
template <class T>
constexpr bool is_scalar_elem_v = is_int_v<T> || is_ptr_value_v<T>;
template <class T>
constexpr char elem_letter() {
    if constexpr (is_ptr_value_v<T>)
        return 'p';
    else
        return int_letter<T>();
}
template <class C, class = void>
struct contiguous : std::false_type {};
template <class C>
struct contiguous<C, std::void_t<decltype(std::declval<C &>().data()), decltype(std::declval<C &>().size())>>
    : std::true_type {
    using elem = std::remove_cv_t<std::remove_pointer_t<decltype(std::declval<C &>().data())>>;
};
template <class C>
constexpr bool is_string_class_v = std::is_same_v<C, std::string> || std::is_same_v<C, std::string_view>;

// --- writing: one holder per argument, giving its shape and its C arguments -

template <class T, class = void>
struct wr {
    static_assert(dependent_false<T>,
                  "ostrel: no packet item for this type (integers, enums, object pointers, strings, arrays of "
                  "integers or pointers, writers and arrays of writers can be written)");
};
template <class T>
struct wr<T, std::enable_if_t<is_int_v<T>>> {
    static constexpr shape s{int_letter<T>(), false, 'w'};
    const T &v;
    uint32_t check() const noexcept { return 0; }
    auto cargs() const noexcept {
        if constexpr (sizeof(T) == 8)
            return std::tuple<int64_t>(static_cast<int64_t>(v));
        else
            return std::tuple<int>(static_cast<int>(v));
    }
};
template <class T>
struct wr<T, std::enable_if_t<is_ptr_value_v<T>>> {
    static constexpr shape s{'p', false, 'w'};
    const T &v;
    uint32_t check() const noexcept { return 0; }
    std::tuple<const void *> cargs() const noexcept { return {static_cast<const void *>(v)}; }
};
template <class T>
struct wr<T, std::enable_if_t<std::is_pointer_v<T> && is_char_v<std::remove_pointer_t<T>>>> {
    static constexpr shape s{'s', false, 'w'};
    const T &v; // NULL writes a NULL string
    uint32_t check() const noexcept { return 0; }
    std::tuple<const char *> cargs() const noexcept { return {v}; }
};
template <size_t N>
struct wr<char[N]> {
    static constexpr shape s{'s', false, 'w'};
    const char (&v)[N];
    uint32_t check() const noexcept { return 0; }
    std::tuple<const char *> cargs() const noexcept { return {v}; }
};
// A std::string is written up to its end; one that holds a NUL inside would be
// cut there, so it is refused. A string_view is copied to add its NUL; a
// default (null) one writes a NULL string.
template <class T>
struct wr<T, std::enable_if_t<is_string_class_v<T>>> {
    static constexpr shape s{'s', false, 'w'};
    const T &v;
    std::string copy{};
    uint32_t check() const noexcept {
        return v.size() && std::memchr(v.data(), 0, v.size()) ? OSL_ERR_INVALID_PARAMETER : 0u;
    }
    std::tuple<const char *> cargs() {
        if constexpr (std::is_same_v<T, std::string>) {
            return {v.c_str()};
        } else {
            if (v.data() == nullptr) return {nullptr};
            copy.assign(v.data(), v.size());
            return {copy.c_str()};
        }
    }
};
template <>
struct wr<writer> {
    static constexpr shape s{'b', false, 'w'};
    const writer &v;
    uint32_t check() const noexcept { return 0; }
    inline std::tuple<Ostrel_Serializer *> cargs() const noexcept;
};
// Arrays: C arrays (char arrays are strings) and contiguous containers.
template <class E>
struct wr_array {
    static constexpr shape s{elem_letter<E>(), true, 'w'};
    const E *p;
    size_t n;
    uint32_t check() const noexcept { return n > INT_MAX ? OSL_ERR_INVALID_PARAMETER : 0u; }
    std::tuple<const void *, int> cargs() const noexcept { return {p, static_cast<int>(n)}; }
};
template <class E, size_t N>
struct wr<E[N], std::enable_if_t<is_scalar_elem_v<E> && !is_char_v<E>>> : wr_array<E> {
    wr(const E (&a)[N]) noexcept : wr_array<E>{a, N} {}
};
template <class C>
struct wr<C, std::enable_if_t<!is_string_class_v<C> && contiguous<C>::value &&
                              is_scalar_elem_v<typename contiguous<C>::elem>>> : wr_array<typename contiguous<C>::elem> {
    wr(const C &c) noexcept : wr_array<typename contiguous<C>::elem>{c.data(), c.size()} {}
};
template <class C>
struct wr<C, std::enable_if_t<contiguous<C>::value && std::is_same_v<typename contiguous<C>::elem, writer>>> {
    static constexpr shape s{'b', true, 'w'};
    std::vector<Ostrel_Serializer *> handles;
    wr(const C &c) {
        handles.reserve(c.size());
        for (const auto &w : c) handles.push_back(w.get());
    }
    uint32_t check() const noexcept { return handles.size() > INT_MAX ? OSL_ERR_INVALID_PARAMETER : 0u; }
    std::tuple<Ostrel_Serializer **, int> cargs() noexcept { return {handles.data(), static_cast<int>(handles.size())}; }
};
template <class E>
struct wr<null_array<E>> {
    static_assert(is_scalar_elem_v<E>, "ostrel: a null array of integers or pointers");
    static constexpr shape s{elem_letter<E>(), true, '#'};
    const null_array<E> &v;
    uint32_t check() const noexcept { return v.count > INT_MAX ? OSL_ERR_INVALID_PARAMETER : 0u; }
    std::tuple<const void *, int> cargs() const noexcept { return {nullptr, static_cast<int>(v.count)}; }
};
template <class T>
struct wr<at_t<T>> : wr<std::remove_cv_t<T>> {
    uint32_t index;
    wr(const at_t<T> &a) : wr<std::remove_cv_t<T>>{a.ref}, index(a.index) {}
};

// --- reading: one holder per destination, with a step after the call ------

template <class T, class = void>
struct rd {
    static_assert(dependent_false<T>,
                  "ostrel: no packet item reads into this type (integers, enums, object pointers, char[N], "
                  "std::string, std::string_view, malloc_string, T[N], std::array, std::vector, span<const T>, "
                  "malloc_array, reader and std::vector<reader> can be read)");
};
template <class T>
struct rd<T, std::enable_if_t<is_int_v<T> || is_ptr_value_v<T>>> {
    static constexpr shape s{elem_letter<T>(), false, '%'};
    T &d;
    uint32_t check() const noexcept { return 0; }
    std::tuple<void *> cargs() noexcept { return {static_cast<void *>(&d)}; }
    void post() noexcept {}
};
template <size_t N>
struct rd<char[N]> {
    static constexpr shape s{'s', false, '%'};
    char (&d)[N];
    int size = static_cast<int>(N > INT_MAX ? INT_MAX : N);
    uint32_t check() const noexcept { return 0; }
    std::tuple<char *, int *> cargs() noexcept { return {d, &size}; }
    void post() noexcept {}
};
// Strings by reference into the packet ('@s'): std::string copies the text
// (a NULL string gives an empty one), std::string_view views it (a NULL
// string gives a null view), malloc_string takes new memory ('@Ns').
template <class T>
struct rd<T, std::enable_if_t<is_string_class_v<T> || std::is_same_v<T, malloc_string>>> {
    static constexpr shape s{'s', false, std::is_same_v<T, malloc_string> ? 'N' : '@'};
    T &d;
    char *text = &unread_marker;
    uint32_t check() const noexcept { return 0; }
    std::tuple<char **> cargs() noexcept { return {&text}; }
    void post() {
        if (text == &unread_marker) return;
        if constexpr (std::is_same_v<T, std::string>) {
            if (text)
                d.assign(text);
            else
                d.clear();
        } else if constexpr (std::is_same_v<T, std::string_view>) {
            d = text ? std::string_view(text) : std::string_view();
        } else {
            d.reset(text);
        }
    }
};
// Arrays copied into fixed room ('%a?'): elements past the count read are
// left as they were.
template <class E>
struct rd_fixed {
    static constexpr shape s{elem_letter<E>(), true, '%'};
    E *p;
    unsigned int cap;
    uint32_t check() const noexcept { return 0; }
    std::tuple<void *, unsigned int *> cargs() noexcept { return {static_cast<void *>(p), &cap}; }
    void post() noexcept {}
};
template <class E, size_t N>
struct rd<E[N], std::enable_if_t<is_scalar_elem_v<E> && !is_char_v<E>>> : rd_fixed<E> {
    rd(E (&a)[N]) noexcept : rd_fixed<E>{a, static_cast<unsigned int>(N)} {}
};
template <class E, size_t N>
struct rd<std::array<E, N>, std::enable_if_t<is_scalar_elem_v<E>>> : rd_fixed<E> {
    rd(std::array<E, N> &a) noexcept : rd_fixed<E>{a.data(), static_cast<unsigned int>(N)} {}
};
// Arrays referenced in the packet ('@a?', span<const E>), copied from new
// memory into a vector ('@Na?', std::vector<E>) or kept in it ('@Na?',
// malloc_array<E>). Null arrays give empty ones.
template <class T, class E, char Kind>
struct rd_varray {
    static constexpr shape s{elem_letter<E>(), true, Kind};
    T &d;
    void *elems = &unread_marker;
    unsigned int n = 0;
    uint32_t check() const noexcept { return 0; }
    std::tuple<void **, unsigned int *> cargs() noexcept { return {&elems, &n}; }
    void post() {
        if (elems == &unread_marker) return;
        const E *e = static_cast<const E *>(elems);
        const size_t count = e ? n : 0;
        if constexpr (Kind == '@') {
            d = T(e, count);
        } else if constexpr (std::is_same_v<T, std::vector<E>>) {
            d.assign(e, e + count);
            Ostrel_Free(elems);
        } else {
            d.data.reset(static_cast<E *>(elems));
            d.size = static_cast<uint32_t>(count);
        }
    }
};
template <class E>
struct rd<span<const E>, std::enable_if_t<is_scalar_elem_v<E>>> : rd_varray<span<const E>, E, '@'> {
    rd(span<const E> &dest) noexcept : rd_varray<span<const E>, E, '@'>{dest} {}
};
template <class E>
struct rd<std::vector<E>, std::enable_if_t<is_scalar_elem_v<E>>> : rd_varray<std::vector<E>, E, 'N'> {
    rd(std::vector<E> &dest) noexcept : rd_varray<std::vector<E>, E, 'N'>{dest} {}
};
template <class E>
struct rd<malloc_array<E>, std::enable_if_t<is_scalar_elem_v<E>>> : rd_varray<malloc_array<E>, E, 'N'> {
    rd(malloc_array<E> &dest) noexcept : rd_varray<malloc_array<E>, E, 'N'>{dest} {}
};
// A nested packet opens (or reuses) the reader's handle ('@b'); an array of
// them fills a vector of readers whose size is the room ('@ab') and is cut
// to the number read.
template <>
struct rd<reader> {
    static constexpr shape s{'b', false, '@'};
    reader &d;
    uint32_t check() const noexcept { return 0; }
    inline std::tuple<Ostrel_Serializer **> cargs() noexcept;
    void post() noexcept {}
};
template <>
struct rd<std::vector<reader>> {
    static constexpr shape s{'b', true, '@'};
    std::vector<reader> &d;
    std::vector<Ostrel_Serializer *> handles{};
    unsigned int n = 0;
    inline uint32_t check() const noexcept;
    inline std::tuple<Ostrel_Serializer **, unsigned int *> cargs();
    inline void post();
};
template <class T>
struct rd<at_t<T>> : rd<T> {
    uint32_t index;
    rd(const at_t<T> &a) : rd<T>{a.ref}, index(a.index) {}
};

template <class H>
struct indexed : std::false_type {};
template <class T>
struct indexed<wr<at_t<T>>> : std::true_type {};
template <class T>
struct indexed<rd<at_t<T>>> : std::true_type {};

// --- descriptors ------------------------------------------------------------

constexpr const char *kind_prefix(char kind) {
    return kind == '#' ? "#" : kind == '@' ? "@" : kind == 'N' ? "@N" : "%";
}
constexpr size_t put_item(char *out, size_t k, const shape &s) {
    for (const char *p = kind_prefix(s.kind); *p; ++p) out[k++] = *p;
    return k;
}
constexpr size_t put_tail(char *out, size_t k, const shape &s) {
    if (s.array) out[k++] = 'a';
    out[k++] = s.letter;
    return k;
}

// The descriptor of holders without indexes, built at compile time.
template <class... H>
struct fixed_descriptor {
    static constexpr std::array<char, 4 * sizeof...(H) + 1> make() {
        std::array<char, 4 * sizeof...(H) + 1> out{};
        const shape shapes[] = {H::s..., shape{0, false, 0}};
        size_t k = 0;
        for (size_t i = 0; i < sizeof...(H); ++i) k = put_tail(out.data(), put_item(out.data(), k, shapes[i]), shapes[i]);
        out[k] = 0;
        return out;
    }
    static constexpr std::array<char, 4 * sizeof...(H) + 1> value = make();
};

// The descriptor of holders that all carry an index, built per call; false
// when an index is outside 1 .. 255.
template <class Tuple, size_t... I>
bool indexed_descriptor(char *out, const Tuple &holders, std::index_sequence<I...>) noexcept {
    size_t k = 0;
    bool ok = true;
    auto one = [&](const auto &x) {
        using X = std::decay_t<decltype(x)>;
        if (x.index < 1 || x.index > 255) ok = false;
        k = put_item(out, k, X::s);
        if (x.index >= 100) out[k++] = static_cast<char>('0' + x.index / 100 % 10);
        if (x.index >= 10) out[k++] = static_cast<char>('0' + x.index / 10 % 10);
        out[k++] = static_cast<char>('0' + x.index % 10);
        out[k++] = '.';
        k = put_tail(out, k, X::s);
    };
    (one(std::get<I>(holders)), ...);
    out[k] = 0;
    return ok;
}

#if OSTREL_CONSTEVAL_DESCRIPTORS
// Called only when a descriptor literal does not match its arguments: the
// call is not a constant expression, so the program does not compile.
inline void descriptor_does_not_match_the_arguments() {}
#endif

// Whether a caller's descriptor describes exactly the items of `expect`, in
// the descriptor language of the C functions: blanks between items; a
// prefix ('%', '@', '#' when writing; '%', '@' and an optional 'N' when
// reading); an index 1..255 and '.' on every item or on none; 'a' for an
// array; the letter.
constexpr bool descriptor_fits(const char *s, const shape *expect, size_t n, bool reading) {
    if (s == nullptr) return false;
    size_t i = 0;
    int indexed_items = -1;
    for (;;) {
        while (*s == ' ' || *s == '\t') ++s;
        if (*s == 0) return i == n;
        if (i == n) return false;
        const char prefix = *s++;
        char kind = 'w';
        if (reading) {
            if (prefix != '%' && prefix != '@') return false;
            kind = prefix;
            if (*s == 'N') {
                ++s;
                if (prefix == '@') kind = 'N';
            }
        } else {
            if (prefix != '%' && prefix != '@' && prefix != '#') return false;
            if (prefix == '#') kind = '#';
        }
        const bool has_index = *s >= '0' && *s <= '9';
        if (has_index) {
            unsigned index = 0;
            while (*s >= '0' && *s <= '9') {
                index = index * 10 + static_cast<unsigned>(*s++ - '0');
                if (index > 255) return false;
            }
            if (*s++ != '.' || index == 0) return false;
        }
        if (indexed_items < 0) indexed_items = has_index;
        if (indexed_items != static_cast<int>(has_index)) return false;
        const bool array = *s == 'a';
        if (array) ++s;
        const char letter = *s;
        if (letter == 0) return false;
        ++s;
        const shape &e = expect[i++];
        if (letter != e.letter || array != e.array) return false;
        if (reading ? kind != e.kind : (e.kind == '#' && kind != '#')) return false;
    }
}

template <bool Reading, class... H>
struct basic_format {
    static constexpr shape shapes[] = {H::s..., shape{0, false, 0}};
    const char *str;
    bool fits;
#if OSTREL_CONSTEVAL_DESCRIPTORS
    template <class S, class = std::enable_if_t<std::is_convertible_v<const S &, const char *>>>
    consteval basic_format(const S &s) : str(s), fits(true) {
        if (!descriptor_fits(str, shapes, sizeof...(H), Reading)) descriptor_does_not_match_the_arguments();
    }
#else
    constexpr basic_format(const char *s) : str(s), fits(descriptor_fits(s, shapes, sizeof...(H), Reading)) {}
#endif
};

// The glue below runs over a tuple of holders, one per argument: the first
// refusal of an argument, the call with every holder's C arguments in order,
// and the steps after the call.
template <class... H>
using holder_index = std::index_sequence_for<H...>;

template <class Tuple, size_t... I>
OSTREL_FORCE_INLINE inline uint32_t first_failure(const Tuple &holders, std::index_sequence<I...>) noexcept {
    uint32_t rc = 0;
    ((rc = rc ? rc : std::get<I>(holders).check()), ...);
    return rc;
}

template <class Call, class Args, size_t... J>
OSTREL_FORCE_INLINE inline uint32_t call_args(Call &call, const char *descriptor, Args &args, std::index_sequence<J...>) {
    return call(descriptor, std::get<J>(args)...);
}

// Runs call(descriptor, C arguments...) over the holders.
template <class Tuple, class Call, size_t... I>
OSTREL_FORCE_INLINE inline uint32_t call_with(Tuple &holders, const char *descriptor, Call call, std::index_sequence<I...>) {
    auto args = std::tuple_cat(std::get<I>(holders).cargs()...);
    return call_args(call, descriptor, args, std::make_index_sequence<std::tuple_size_v<decltype(args)>>());
}

template <class Tuple, size_t... I>
OSTREL_FORCE_INLINE inline void post_all(Tuple &holders, std::index_sequence<I...>) {
    (std::get<I>(holders).post(), ...);
}

// Builds the descriptor from the holders' types (and indexes) and calls.
template <class Call, class... H>
OSTREL_FORCE_INLINE inline uint32_t typed_call(std::tuple<H...> &holders, Call call) {
    constexpr size_t with_index = (0 + ... + (indexed<H>::value ? 1 : 0));
    static_assert(with_index == 0 || with_index == sizeof...(H),
                  "ostrel: in one call either every item carries an index (ostrel::at) or none does");
    const uint32_t rc = first_failure(holders, holder_index<H...>());
    if (rc != 0) return rc;
    if constexpr (with_index == 0 || sizeof...(H) == 0) {
        return call_with(holders, fixed_descriptor<H...>::value.data(), call, holder_index<H...>());
    } else {
        char descriptor[8 * sizeof...(H) + 1];
        if (!indexed_descriptor(descriptor, holders, holder_index<H...>())) return OSL_ERR_INVALID_FORMAT;
        return call_with(holders, descriptor, call, holder_index<H...>());
    }
}

// The variadic C calls as function objects over a handle.
struct serialize_fn {
    Ostrel_Serializer *h;
    int mode;
    template <class... A>
    OSTREL_FORCE_INLINE uint32_t operator()(const char *descriptor, A... a) const noexcept {
        return Ostrel_Serializer_Serialize(h, mode, descriptor, a...);
    }
};
struct deserialize_fn {
    Ostrel_Serializer *h;
    template <class... A>
    OSTREL_FORCE_INLINE uint32_t operator()(const char *descriptor, A... a) const noexcept {
        return Ostrel_Serializer_Deserialize(h, descriptor, a...);
    }
};


} // namespace detail

/**
 * A descriptor literal for writer::writef with values of types V...:
 * checked at compile time under C++20, and at the call under C++17.
 */
template <class... V>
using write_format = detail::basic_format<false, detail::wr<V>...>;
/** A descriptor literal for reader::readf with destinations of types D.... */
template <class... D>
using read_format = detail::basic_format<true, detail::rd<D>...>;

/** Packet layout of a writer. */
struct layout {
    bool ordered = true;    /**< items read back in order; false: by index 1..255 */
    uint32_t align = 4;     /**< 1, 2, 4 or 8 */
    bool big_endian = false;
    bool pointer32 = false; /**< pointer items 32 bits wide */
    /** As the C configuration record. */
    Ostrel_SerializerConfig config() const noexcept {
        return Ostrel_SerializerConfig{pointer32 ? 1 : 0, big_endian ? 1u : 0u, align, ordered ? 1u : 0u,
                                       pointer32 ? 1u : 0u};
    }
};

/**
 * Owner of a writing serializer handle (Ostrel_Serializer_Destroy on
 * destruction). Items are written from C++ values, whose types give the
 * descriptor: integers and enums of 8, 16, 32 and 64 bits ('c' 'h' 'd' 'l'),
 * object pointers ('p'), strings as const char * (null: a NULL string),
 * char arrays, std::string or std::string_view ('s'), arrays from C arrays,
 * spans, std::array or std::vector of integers or pointers ('a'), another
 * writer ('b') and containers of writers ('ab'), null_array<T> ('#a').
 * Indexes for unordered packets come from ostrel::at(). A std::string or
 * std::string_view holding a NUL inside is refused (0x9000F) before any C
 * call, as are counts beyond the C int.
 */
class writer : public detail::handle_owner<Ostrel_Serializer *, Ostrel_Serializer_Destroy> {
public:
    /** An empty owner, holding no handle. */
    writer() noexcept = default;
    /** Adopts a writing handle. */
    explicit writer(Ostrel_Serializer *h) noexcept : handle_owner(h) {}

    /** Creates a writing handle with the given layout. */
    static result<writer> create(const layout &l = {}) noexcept { return create(l.config()); }
    /** Creates a writing handle from a C configuration record. */
    static result<writer> create(const Ostrel_SerializerConfig &c) noexcept {
        writer w;
        const uint32_t rc = Ostrel_Serializer_SerializeInit(&c, w.h_.out());
        return detail::make_result(rc, std::move(w));
    }

    /** Appends the values as items. */
    template <class... V>
    OSTREL_FORCE_INLINE std::error_code write(const V &...values) noexcept {
        return put(OSL_SLZ_MODE_APPEND, values...);
    }
    /** Empties the packet, then writes the values as its items. */
    template <class... V>
    OSTREL_FORCE_INLINE std::error_code rewrite(const V &...values) noexcept {
        return put(OSL_SLZ_MODE_RESET, values...);
    }
    /** Empties the packet (keeping the buffer). */
    std::error_code reset() noexcept { return rewrite(); }
    /**
     * Appends the values with the caller's descriptor, which must describe
     * exactly these values (checked; 0x90013 before any C call under C++17).
     */
    template <class... V>
    std::error_code writef(write_format<detail::type_identity_t<V>...> descriptor, const V &...values) noexcept {
        static_assert((!detail::indexed<detail::wr<V>>::value && ...), "ostrel: writef takes indexes from the descriptor");
        if (!descriptor.fits) return make_error_code(errc::invalid_format);
        std::tuple<detail::wr<V>...> holders{detail::wr<V>{values}...};
        const uint32_t rc = detail::first_failure(holders, detail::holder_index<V...>());
        if (rc != 0) return detail::ec(rc);
        return detail::ec(detail::call_with(holders, descriptor.str, detail::serialize_fn{h_.get(), OSL_SLZ_MODE_APPEND},
                                            detail::holder_index<V...>()));
    }
    /** The finished packet: a view into the handle's buffer, valid until the next write. */
    result<byte_view> buffer() const noexcept {
        unsigned char *p = nullptr;
        int n = 0;
        const uint32_t rc = Ostrel_Serializer_GetBuffer(h_.get(), &p, &n);
        return detail::make_result(rc, byte_view(p, n > 0 ? static_cast<size_t>(n) : 0));
    }

private:
    template <class... V>
    OSTREL_FORCE_INLINE std::error_code put(int mode, const V &...values) noexcept {
        std::tuple<detail::wr<V>...> holders{detail::wr<V>{values}...};
        return detail::ec(detail::typed_call(holders, detail::serialize_fn{h_.get(), mode}));
    }
};

/**
 * Owner of a reading serializer handle (Ostrel_Serializer_Destroy on
 * destruction). The packet bytes stay the caller's and must outlive the
 * reader and every view read from it. Destinations give the descriptor:
 *  - copied ('%'): integers and enums, object pointers (pointer values),
 *    char[N] (a string, room N), T[N] and std::array<T, N> (room N);
 *  - referenced ('@'): std::string_view (a view of the text; a NULL string
 *    gives a null view), std::string (the text copied; NULL gives ""),
 *    span<const T> (the elements in the packet, converted in place when the
 *    packet's byte order is not the host's), reader (a nested packet, its
 *    handle reused when it has one), std::vector<reader> (its size is the
 *    room; it is cut to the number read);
 *  - new memory ('@N'): malloc_string, malloc_array<T>, and std::vector<T>
 *    (filled from the new memory, which is then released).
 * Indexes for unordered packets come from ostrel::at().
 */
class reader : public detail::handle_owner<Ostrel_Serializer *, Ostrel_Serializer_Destroy> {
public:
    /** An empty owner, holding no handle. */
    reader() noexcept = default;
    /** Adopts a reading handle. */
    explicit reader(Ostrel_Serializer *h) noexcept : handle_owner(h) {}

    /** Validates a packet and opens it for reading. */
    static result<reader> open(byte_view packet) noexcept {
        reader r;
        const std::error_code e = r.reopen(packet);
        if (e) return e;
        return result<reader>(std::move(r));
    }
    /** Points this reader (or a new handle when it has none) at another packet. */
    std::error_code reopen(byte_view packet) noexcept {
        if (packet.size() > static_cast<size_t>(INT_MAX)) return make_error_code(errc::invalid_length);
        return detail::ec(Ostrel_Serializer_DeserializeInit(packet.bytes(), static_cast<int>(packet.size()), h_.out()));
    }
    /** Reads items into the destinations (lvalues, or ostrel::at() of lvalues). */
    template <class... D>
    OSTREL_FORCE_INLINE std::error_code read(D &&...destinations) noexcept {
        std::tuple<detail::rd<detail::clean_t<D>>...> holders{detail::rd<detail::clean_t<D>>{destinations}...};
        const uint32_t rc = detail::typed_call(holders, detail::deserialize_fn{h_.get()});
        detail::post_all(holders, detail::holder_index<D...>());
        return detail::ec(rc);
    }
    /**
     * Reads items with the caller's descriptor, which must describe exactly
     * these destinations (checked; 0x90013 before any C call under C++17).
     */
    template <class... D>
    std::error_code readf(read_format<detail::clean_t<D>...> descriptor, D &&...destinations) noexcept {
        static_assert((!detail::indexed<detail::rd<detail::clean_t<D>>>::value && ...),
                      "ostrel: readf takes indexes from the descriptor");
        if (!descriptor.fits) return make_error_code(errc::invalid_format);
        std::tuple<detail::rd<detail::clean_t<D>>...> holders{detail::rd<detail::clean_t<D>>{destinations}...};
        const uint32_t rc =
            detail::call_with(holders, descriptor.str, detail::deserialize_fn{h_.get()}, detail::holder_index<D...>());
        detail::post_all(holders, detail::holder_index<D...>());
        return detail::ec(rc);
    }

private:
    friend struct detail::rd<reader>;
};

namespace detail {
inline std::tuple<Ostrel_Serializer *> wr<writer>::cargs() const noexcept { return {v.get()}; }
inline std::tuple<Ostrel_Serializer **> rd<reader>::cargs() noexcept { return {d.h_.out()}; }
inline uint32_t rd<std::vector<reader>>::check() const noexcept {
    return d.size() > UINT_MAX ? OSL_ERR_INVALID_PARAMETER : 0u;
}
inline std::tuple<Ostrel_Serializer **, unsigned int *> rd<std::vector<reader>>::cargs() {
    handles.resize(d.size());
    for (size_t i = 0; i < d.size(); ++i) handles[i] = d[i].release();
    n = static_cast<unsigned int>(d.size());
    return {handles.data(), &n};
}
inline void rd<std::vector<reader>>::post() {
    for (size_t i = 0; i < handles.size(); ++i) d[i] = reader(handles[i]);
    if (n < d.size()) d.resize(n);
}
} // namespace detail

// ============================================================================
// Netbase
// ============================================================================

/** Byte order of the lengths in every header this process sends from now on. */
inline std::error_code set_big_endian(bool big) noexcept { return detail::ec(netbase_set_big_endian(big ? 1 : 0)); }

/**
 * Owner of a netbase connection handle (netbase_close on destruction): a
 * client connection or one accepted from a listen. Timeouts are
 * milliseconds, 0 meaning no limit; negative ones count as 0.
 */
class connection : public detail::handle_owner<NetbaseCtx *, netbase_close> {
public:
    /** An empty owner, holding no handle. */
    connection() noexcept = default;
    /** Adopts a connection handle. */
    explicit connection(NetbaseCtx *h) noexcept : handle_owner(h) {}

    /** Connects to host:port and runs the client half of the handshake. */
    static result<connection> connect(zstring host, int32_t port, std::chrono::milliseconds timeout) noexcept {
        connection c;
        const uint32_t t = detail::ms_u32(timeout);
        const uint32_t rc = netbase_client_tcp_connect(host.c_str(), port, &t, c.h_.out());
        return detail::make_result(rc, std::move(c));
    }
    /** The server half of the handshake, on an accepted connection. */
    std::error_code handshake(std::chrono::milliseconds timeout) noexcept {
        return detail::ec(netbase_server_handshake(h_.get(), detail::ms_u32(timeout)));
    }
    /** Sends one packet (at most NETBASE_PACKET_LENGTH_MAX bytes). */
    std::error_code send(byte_view data, std::chrono::milliseconds timeout) noexcept {
        if (data.size() > static_cast<size_t>(NETBASE_PACKET_LENGTH_MAX)) return make_error_code(errc::invalid_parameter);
        return detail::ec(netbase_send_packet(h_.get(), data.data(), static_cast<int32_t>(data.size()), detail::ms_u32(timeout)));
    }
    /** Receives one packet into memory of the handle, valid until the next receive or the close. */
    result<byte_view> receive(std::chrono::milliseconds timeout) noexcept {
        void *p = nullptr;
        int32_t n = 0;
        const uint32_t rc = netbase_receive_packet(h_.get(), &p, &n, detail::ms_u32(timeout));
        return detail::make_result(rc, byte_view(p, n > 0 ? static_cast<size_t>(n) : 0));
    }
    /** Receives one packet into the caller's room; gives its length. */
    result<size_t> receive_into(span<unsigned char> room, std::chrono::milliseconds timeout) noexcept {
        int32_t n = room.size() > static_cast<size_t>(INT32_MAX) ? INT32_MAX : static_cast<int32_t>(room.size());
        const uint32_t rc = netbase_receive_packet_buf(h_.get(), room.data(), &n, detail::ms_u32(timeout));
        return detail::make_result(rc, static_cast<size_t>(n));
    }
    /** The connection's socket descriptor. */
    result<int> socket() const noexcept {
        unsigned char record[NETBASE_SOCKET_INFO_SIZE];
        const uint32_t rc = netbase_get_info(h_.get(), NETBASE_INFO_SOCKET, record);
        int fd = -1;
        std::memcpy(&fd, record, sizeof fd);
        return detail::make_result(rc, std::move(fd));
    }
};

namespace detail {
struct conn_handler {
    virtual ~conn_handler() = default;
    virtual uint32_t on(NetbaseCtx *h) noexcept = 0;
};
template <class F>
struct conn_handler_of final : conn_handler {
    explicit conn_handler_of(F &&f) : fn(std::move(f)) {}
    explicit conn_handler_of(const F &f) : fn(f) {}
    uint32_t on(NetbaseCtx *h) noexcept override { return invoke_code(fn, connection(h)); }
    F fn;
};
template <class F>
uint32_t connected_entry(NetbaseCtx *h, void *arg) noexcept {
    return invoke_code(*static_cast<F *>(arg), connection(h));
}

// The state of a listen, on the heap so that a listener can move while its
// listen is served. Serving runs netbase_wait_connection on the serving
// thread; a stop is carried out from inside the accept loop (where the listen
// is known to be serving): stop() marks it and wakes the loop with a
// connection of its own, the loop's next callback requests the stop, and the
// accept loop ends and releases the listen.
struct listen_state {
    NetbaseCtx *h = nullptr;
    std::string address;
    uint32_t port = 0;
    std::mutex mu;
    std::condition_variable ended;
    enum { idle, serving, stopping, over } phase = idle;
    bool stop_signalled = false;
    uint32_t handler_code = 0;
    std::unique_ptr<conn_handler> handler;
    std::thread worker;

    static uint32_t entry(NetbaseCtx *conn, void *arg) noexcept {
        auto *s = static_cast<listen_state *>(arg);
        {
            std::lock_guard<std::mutex> lk(s->mu);
            if (s->phase == stopping) {
                netbase_close(conn);
                if (!s->stop_signalled) {
                    s->stop_signalled = true;
                    netbase_close(s->h); // serving: only marks the stop
                }
                return 0;
            }
        }
        const uint32_t rc = s->handler->on(conn);
        if (rc != 0) s->handler_code = rc;
        return rc;
    }
    uint32_t serve() noexcept {
        const uint32_t rc = netbase_wait_connection(h, &entry, this, 0);
        std::lock_guard<std::mutex> lk(mu);
        if (rc != 0) {
            phase = idle; // serving never started
            ended.notify_all();
            return rc;
        }
        if (!stop_signalled) {
            // Serving ended by a failure: the listen stays marked serving;
            // the first close marks the stop, the second releases it.
            netbase_close(h);
            netbase_close(h);
        }
        h = nullptr;
        phase = over;
        ended.notify_all();
        return handler_code;
    }
    void wake() noexcept {
        const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        if (fd < 0) return;
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(static_cast<uint16_t>(port));
        if (address == "0.0.0.0" || inet_pton(AF_INET, address.c_str(), &a.sin_addr) != 1)
            a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        (void)::connect(fd, reinterpret_cast<const sockaddr *>(&a), sizeof a);
        ::close(fd);
    }
};
} // namespace detail

/**
 * Owner of a netbase listen. Serve it with a callable (a lambda with
 * captures) that takes each accepted connection as an ostrel::connection
 * (closed when the callable lets it go) and returns void, std::error_code,
 * errc or a code: a non-zero result ends serving. serve() serves on the
 * calling thread, serve_in_background() on a thread of the listener; stop()
 * ends serving from any thread. The destructor stops serving, waits for it to
 * end and releases the listen.
 */
class listener {
public:
    /** An empty owner, holding no handle. */
    listener() noexcept = default;
    /** Takes the listen over (also while it is served); the source is left empty. */
    listener(listener &&) noexcept = default;
    /** Stops and releases this listen, then takes the other over. */
    listener &operator=(listener &&o) noexcept {
        if (this != &o) {
            shut();
            s_ = std::move(o.s_);
        }
        return *this;
    }
    /** Stops serving, waits until it has ended and releases the listen. */
    ~listener() { shut(); }

    /** Makes a listen on addr:port (port 0: the system chooses; port() tells). */
    static result<listener> establish(zstring addr, int32_t port) noexcept {
        std::unique_ptr<detail::listen_state> s(new (std::nothrow) detail::listen_state);
        if (!s) return errc::no_memory;
        const uint32_t rc = netbase_tcp_establish_listen(addr.c_str(), port, &s->h);
        if (rc != 0) return make_error_code(rc);
        const char *text = nullptr;
        netbase_get_listening_info(s->h, &text, &s->port);
        s->address = text ? text : "";
        listener l;
        l.s_ = std::move(s);
        return result<listener>(std::move(l));
    }
    /** The listening port. */
    uint32_t port() const noexcept { return s_ ? s_->port : 0; }
    /** The listen address as given. */
    std::string address() const { return s_ ? s_->address : std::string(); }
    /** Accepts one connection (not while serving: 0x90014). */
    result<connection> accept(std::chrono::milliseconds timeout) noexcept {
        if (!s_ || !s_->h) return errc::invalid_status;
        {
            std::lock_guard<std::mutex> lk(s_->mu);
            if (s_->phase != detail::listen_state::idle) return errc::invalid_status;
        }
        NetbaseCtx *c = nullptr;
        const uint32_t rc = netbase_accept(s_->h, &c, detail::ms_u32(timeout));
        return detail::make_result(rc, connection(c));
    }
    /**
     * Serves the listen on the calling thread until stop() or a failure;
     * gives the handler's non-zero result if that ended serving. A listen
     * serves once: afterwards it is released.
     */
    template <class F>
    std::error_code serve(F &&handler) noexcept {
        const std::error_code e = begin(std::forward<F>(handler));
        return e ? e : detail::ec(s_->serve());
    }
    /** Serves the listen on a thread of the listener; returns at once. */
    template <class F>
    std::error_code serve_in_background(F &&handler) noexcept {
        const std::error_code e = begin(std::forward<F>(handler));
        if (e) return e;
        detail::listen_state *s = s_.get();
        s->worker = std::thread([s] { (void)s->serve(); });
        return {};
    }
    /** Ends serving (from any thread); returns at once. */
    void stop() noexcept {
        if (!s_) return;
        {
            std::lock_guard<std::mutex> lk(s_->mu);
            if (s_->phase != detail::listen_state::serving) return;
            s_->phase = detail::listen_state::stopping;
        }
        s_->wake();
    }
    /** The listen handle (null once serving has ended). */
    NetbaseCtx *get() const noexcept { return s_ ? s_->h : nullptr; }

private:
    template <class F>
    std::error_code begin(F &&handler) noexcept {
        if (!s_ || !s_->h) return make_error_code(errc::invalid_status);
        std::lock_guard<std::mutex> lk(s_->mu);
        if (s_->phase != detail::listen_state::idle) return make_error_code(errc::invalid_status);
        s_->handler.reset(new (std::nothrow) detail::conn_handler_of<std::decay_t<F>>(std::forward<F>(handler)));
        if (!s_->handler) return make_error_code(errc::no_memory);
        s_->phase = detail::listen_state::serving;
        return {};
    }
    // Stops serving and waits until it has ended (waking the accept loop
    // again should a wake-up connection not get through), then releases.
    void shut() noexcept {
        if (!s_) return;
        stop();
        {
            std::unique_lock<std::mutex> lk(s_->mu);
            while (s_->phase == detail::listen_state::stopping) {
                if (s_->ended.wait_for(lk, std::chrono::milliseconds(500)) == std::cv_status::timeout) {
                    lk.unlock();
                    s_->wake();
                    lk.lock();
                }
            }
        }
        if (s_->worker.joinable()) s_->worker.join();
        if (s_->h && s_->phase == detail::listen_state::idle) netbase_close(s_->h);
        s_.reset();
    }
    std::unique_ptr<detail::listen_state> s_;
};

/**
 * Listens on addr:port and serves it on the calling thread with a callable
 * (as listener::serve) until accepting or the callable fails; returns that
 * failure's code (netbase_tcp_server, whose listen is never released).
 */
template <class F>
std::error_code tcp_server(zstring addr, int32_t port, F &&handler) noexcept {
    using Fn = std::remove_reference_t<F>;
    return detail::ec(netbase_tcp_server(addr.c_str(), port, &detail::connected_entry<Fn>,
                                         const_cast<void *>(static_cast<const void *>(&handler))));
}

// ============================================================================
// Thread group
// ============================================================================

/**
 * The thread node a thread-group thread receives (not an owner: the library
 * frees it when the thread's callable returns). Only its own thread uses it.
 * select() and sleep() tell whether the group asked the thread to close.
 */
class thread_node {
public:
    /** What a wait found. */
    struct wait_result {
        bool to_close = false; /**< the group asked the thread to close */
        int ready = 0;         /**< ready descriptors (select) */
    };
    /** The node a thread function received. */
    explicit thread_node(OstrelThreadNodeHandle h) noexcept : h_(h) {}
    /** Adds a descriptor to wait on (any number, any descriptor). */
    void add(int fd) noexcept { Ostrel_ThreadGroup_SetAdd(h_, fd); }
    /** Removes a descriptor. */
    void remove(int fd) noexcept { Ostrel_ThreadGroup_SetClr(h_, fd); }
    /** Whether a descriptor was ready in the last select. */
    bool is_ready(int fd) const noexcept { return Ostrel_ThreadGroup_SetIsSet(h_, fd) != 0; }
    /** Waits for a descriptor, the close request or the timeout. */
    result<wait_result> select(std::chrono::milliseconds timeout) noexcept {
        int to_close = 0, count = 0;
        const uint32_t rc = Ostrel_ThreadGroup_Select(h_, detail::ms_i32(timeout), &to_close, &count);
        return detail::make_result(rc, wait_result{to_close != 0, count});
    }
    /** Waits for the close request or the timeout; true when asked to close. */
    result<bool> sleep(std::chrono::milliseconds timeout) noexcept {
        int to_close = 0;
        const uint32_t rc = Ostrel_ThreadGroup_Sleep(h_, detail::ms_i32(timeout), &to_close);
        return detail::make_result(rc, to_close != 0);
    }
    /** The raw node, for C calls. */
    OstrelThreadNodeHandle get() const noexcept { return h_; }

private:
    OstrelThreadNodeHandle h_;
};

namespace detail {
template <class F>
uint32_t thread_entry(void *param, OstrelThreadNodeHandle node) noexcept {
    std::unique_ptr<F> fn(static_cast<F *>(param));
    if constexpr (std::is_invocable_v<F &, thread_node>)
        (void)invoke_code(*fn, thread_node(node));
    else
        (void)invoke_code(*fn);
    return 0;
}
} // namespace detail

/**
 * Owner of a thread group. Its threads run callables, each taking its
 * thread_node (or nothing). The destructor asks every thread to close
 * (Ostrel_ThreadGroup_CancelAll) and waits until all have ended
 * (Ostrel_ThreadGroup_Destroy): threads must wait through their node's
 * select() or sleep() to notice.
 */
class thread_group : public detail::handle_owner<OstrelThreadGroupHandle, detail::close_thread_group> {
public:
    /** An empty owner, holding no handle. */
    thread_group() noexcept = default;
    /** Adopts a group handle. */
    explicit thread_group(OstrelThreadGroupHandle h) noexcept : handle_owner(h) {}

    /** Creates an empty group. */
    static result<thread_group> create() noexcept {
        thread_group g;
        const uint32_t rc = Ostrel_ThreadGroup_Create(g.h_.out());
        return detail::make_result(rc, std::move(g));
    }
    /** Starts one thread running the callable (moved or copied into the thread). */
    template <class F>
    std::error_code spawn(F &&fn) noexcept {
        using Fn = std::decay_t<F>;
        Fn *p = new (std::nothrow) Fn(std::forward<F>(fn));
        if (p == nullptr) return make_error_code(errc::no_memory);
        const uint32_t rc = Ostrel_ThreadGroup_NewThread(h_.get(), &detail::thread_entry<Fn>, p);
        if (rc != 0) delete p;
        return detail::ec(rc);
    }
    /** Asks every thread to close. */
    std::error_code cancel_all() noexcept { return detail::ec(Ostrel_ThreadGroup_CancelAll(h_.get())); }
    /** Asks every thread to close, waits for all and frees the group now. */
    std::error_code close() noexcept { return detail::ec(h_.reset()); }
};

// ============================================================================
// Service wrapper
// ============================================================================

namespace detail {
template <class F>
uint32_t start_entry(void *param) noexcept {
    return invoke_code(*static_cast<F *>(param));
}
} // namespace detail

/**
 * Runs a service in the foreground under the pid file
 * "<pid_dir>/qmv_ns_<name>.pid": locks it, calls start() and, when start
 * succeeds, sleeps for ever. Returns only when starting failed: start()'s
 * non-zero result, or 0x90001 when the pid file could not be made or locked.
 */
template <class F>
std::error_code run_foreground(zstring name, zstring pid_dir, F &&start) noexcept {
    using Fn = std::remove_reference_t<F>;
    return detail::ec(Ostrel_NonService_Wrapper_CustomPath_Ex(name.c_str(), pid_dir.c_str(), &detail::start_entry<Fn>,
                                                              const_cast<void *>(static_cast<const void *>(&start))));
}
/** As run_foreground(name, "./", start): pid file ".//qmv_ns_<name>.pid". */
template <class F>
std::error_code run_foreground(zstring name, F &&start) noexcept {
    using Fn = std::remove_reference_t<F>;
    return detail::ec(Ostrel_NonService_Wrapper_Ex(name.c_str(), &detail::start_entry<Fn>,
                                                   const_cast<void *>(static_cast<const void *>(&start))));
}
/**
 * Runs a service as a daemon (detached, standard streams to /dev/null)
 * under the pid file "./qmv_sv_<name>.pid", as run_foreground otherwise.
 */
template <class F>
std::error_code run_daemon(zstring name, F &&start) noexcept {
    using Fn = std::remove_reference_t<F>;
    return detail::ec(Ostrel_Service_Wrapper_Ex(name.c_str(), 0, nullptr, &detail::start_entry<Fn>,
                                                const_cast<void *>(static_cast<const void *>(&start))));
}

} // namespace ostrel

#endif /* OSTREL_HPP */
