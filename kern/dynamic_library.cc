// dynamic_library.cc: module handles, the module cache and the environment
// factory. The cache's process-wide objects are built in _kern.cc.
#include "dynamic_library.h"

#include <cxxabi.h>
#include <dlfcn.h>

#include <algorithm>
#include <boost/make_shared.hpp>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <exception>
#include <vector>

#include "exceptions.h"
#include "immortal-int.h"
#include "loggers.h"
#include "syncers-int.h"

namespace kd = kern::dynalib;
namespace kc = kern::dynalib::cache;
typedef dynamic_library_t::sh_impl sh_impl;

namespace {

// True when a "[DynaLib]" message would be written: DEBUG and a process
// logger that takes DEBUG_3. Tested before building the message's texts.
inline bool debugging() noexcept {
    if (!kd::DEBUG) return false;
    if_logger_t* const l = if_logger_t::Log;
    return l && l->is_logged(if_logger_t::DEBUG_3);
}

// Logs through the process logger at class c, if there is one.
void log_at(if_logger_t::msgclass_t c, char const* fmt, ...) QVL_PRINTF(2, 3);
void log_at(if_logger_t::msgclass_t c, char const* fmt, ...) {
    if_logger_t* const l = if_logger_t::Log;
    if (!l || !l->is_logged(c)) return;
    va_list ap;
    va_start(ap, fmt);
    l->log_va(c, fmt, ap);
    va_end(ap);
}

#define DYNALOG(...)                                           \
    do {                                                       \
        if (debugging()) log_at(if_logger_t::DEBUG_3, __VA_ARGS__); \
    } while (0)

// A name as the [DynaLib] messages show it.
inline std::string shown(std::string const& name) { return kd::drop_root(name); }

inline std::string stamp_text(timestamp_t t) { return t; }

inline unsigned use_of(sh_impl const& p) noexcept { return static_cast<unsigned>(p.use_count()); }

std::string const& empty_name() {
    // Never destroyed: handles may outlive every static of the library.
    static std::string const* const empty = new std::string();
    return *empty;
}

// Finds lib's name in the cache and replaces lib by the cached image. The
// re-check made under the name lock is quiet about misses, as the first
// look-up has told them already.
bool find_cached(sh_impl& lib, bool quiet) {
    if (!lib) return false;
    sh_impl discarded;  // the fresh image goes after the guard, unloaded
    xlocker_t<mutex_t> hold(kc::s_storage_guard);
    kc::storage_t* const s = kc::s_storage.get();
    if (!s) {
        if (!quiet) DYNALOG("[DynaLib] Locate not enabled, library \"%s\"", shown(lib->name).c_str());
        return false;
    }
    kc::storage_t::set_t::const_iterator const it = s->items.find(lib);
    if (it == s->items.end()) {
        if (!quiet) DYNALOG("[DynaLib] Not found library \"%s\"", shown(lib->name).c_str());
        return false;
    }
    sh_impl const& found = *it;
    DYNALOG("[DynaLib] Found library (use=%u this=%p handle=%p last=%s) \"%s\"", use_of(found),
            static_cast<void*>(found.get()), found->handle, stamp_text(found->last).c_str(),
            shown(found->name).c_str());
    found->last = lib->last;
    discarded.swap(lib);
    lib = found;
    return true;
}

typedef char const* (*signature_fn_t)();

// Set while this thread loads a module under a name lock. A module's
// initialiser that opens another module runs inside that load, with the
// loader's own lock held: waiting there for a name lock, be it the one this
// thread holds or one held by a thread that waits for the loader, would
// never end. So a nested load takes no name lock.
thread_local bool t_loading = false;

// Marks the thread as loading for the life of the scope.
class loading_scope_t : private noncopyable_t {
public:
    loading_scope_t() noexcept : was_(t_loading) { t_loading = true; }
    ~loading_scope_t() { t_loading = was_; }

private:
    bool const was_;
};

}  // namespace

// --- images --------------------------------------------------------------------------

dynamic_library_t::impl::impl(char const* lib, char const* path) : handle(nullptr), last(kern::time::now()) {
    if (!lib) lib = "";
    size_t const lib_len = std::strlen(lib);
    size_t const path_len = path ? std::strlen(path) : 0;
    name.reserve(path_len + lib_len + 7);
    if (path_len != 0) {
        name.append(path, path_len);
        name += '/';
    }
    if (std::strncmp(lib, "lib", 3) != 0) name += "lib";
    name.append(lib, lib_len);
    if (!std::memchr(lib, '.', lib_len)) name += ".so";
}

dynamic_library_t::impl::~impl() {
    if (!handle) {
        try {
            DYNALOG("[DynaLib] Not loaded impl (this=%p \"%s\")", static_cast<void*>(this), shown(name).c_str());
        } catch (...) {
        }
        return;
    }
    try {
        DYNALOG("[DynaLib] Destroy impl (this=%p handle=%p \"%s\")", static_cast<void*>(this), handle,
                shown(name).c_str());
        log_at(if_logger_t::TRACE_1, "Unloading library \"%s\"", name.c_str());
    } catch (...) {
    }
    if (dlclose(handle) != 0) {
        char const* const why = dlerror();
        try {
            if (why) log_at(if_logger_t::TRACE_1, "Unable to unload library \"%s\" because of %s", name.c_str(), why);
        } catch (...) {
        }
    }
    try {
        DYNALOG("[DynaLib] Destroyed impl (this=%p handle=%p \"%s\")", static_cast<void*>(this), handle,
                shown(name).c_str());
    } catch (...) {
    }
}

void dynamic_library_t::impl::load() {
    QVL_CALLSTACK();
    // A second load would take a second loader reference that nothing gives
    // back.
    if (handle) return;
    log_at(if_logger_t::DEBUG_3, "Loading library \"%s\"", name.c_str());
    DYNALOG("[DynaLib] Loading impl (this=%p \"%s\")", static_cast<void*>(this), shown(name).c_str());
    void* const h = dlopen(name.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!h) {
        char const* const why = dlerror();
        std::string const text(why ? why : "unknown error");
        errno = 0;
        QVL_THROW(library_load_exception, "load library \"%s\" failed because of %s", name.c_str(), text.c_str());
    }
    handle = h;
    DYNALOG("[DynaLib] Loaded impl (this=%p handle=%p \"%s\")", static_cast<void*>(this), handle,
            shown(name).c_str());
}

void* dynamic_library_t::impl::symbol(char const* sym) const {
    // A null handle would make the loader search the whole process.
    if (!handle || !sym) return nullptr;
    dlerror();
    void* const p = dlsym(handle, sym);
    if (!p) {
        if (char const* const why = dlerror())
            log_at(if_logger_t::TRACE_1, "Unable to find symbol `%s' in library `%s' because of %s", sym,
                   name.c_str(), why);
    }
    return p;
}

// --- handles -------------------------------------------------------------------------

dynamic_library_t::dynamic_library_t() { DYNALOG("[DynaLib] Create @%p library", static_cast<void*>(this)); }

dynamic_library_t::dynamic_library_t(char const* lib, char const* path) {
    DYNALOG("[DynaLib] Create library (this=%p)", static_cast<void*>(this));
    init(lib, path);
}

dynamic_library_t::~dynamic_library_t() {
    try {
        reset();
    } catch (...) {
        // the image is let go with the member in any case
    }
    try {
        DYNALOG("[DynaLib] Destroy library (this=%p)", static_cast<void*>(this));
    } catch (...) {
    }
}

void dynamic_library_t::init(char const* lib, char const* path) {
    QVL_CALLSTACK();
    DYNALOG("[DynaLib] Init library (this=%p lib=\"%s\" path=\"%s\")", static_cast<void*>(this),
            lib ? lib : "not specified", path ? path : "not specified");
    image_ = boost::make_shared<impl>(lib, path);
    if (!kc::locate(image_)) {
        // Whoever held the name lock before us may have stored the image
        // meanwhile; the image is stored before the lock goes, so that the
        // next thread finds it instead of opening the file again.
        late_locker_t<mutex_t> name_lock;
        if (!t_loading) kd::dso_lock(lib ? lib : "", name_lock);
        loading_scope_t const loading;
        if (!find_cached(image_, true)) {
            image_->load();
            kc::store(image_);
        }
    }
    // The module's banner is only of use in the log: with trace level 1 off
    // neither the text nor a missing symbol would show.
    if_logger_t* const l = if_logger_t::Log;
    if (l && l->is_logged(if_logger_t::TRACE_1)) {
        if (void* const sig = image_->symbol("signature")) {
            char const* const text = reinterpret_cast<signature_fn_t>(sig)();
            l->log_TRACE_1("%s", text ? text : "");
        }
    }
}

void* dynamic_library_t::get_symbol(char const* name) const { return image_ ? image_->symbol(name) : nullptr; }

std::string const& dynamic_library_t::get_name() const { return image_ ? image_->name : empty_name(); }

void dynamic_library_t::reset() {
    if (!image_ || !image_->handle) {
        DYNALOG("[DynaLib] Reset not loaded library (this=%p)", static_cast<void*>(this));
        image_.reset();
        return;
    }
    DYNALOG("[DynaLib] Free loaded library (this=%p \"%s\")", static_cast<void*>(this), shown(image_->name).c_str());
    sh_impl held;
    held.swap(image_);
    kc::store(held);
    // held goes here: without the cache, the last holder closes the module
}

// --- name locks ----------------------------------------------------------------------

namespace kern {
namespace dynalib {

namespace {

// The mutexes that the slots hand out. The slots' handles are released at
// exit, but a thread may still be opening a module then: the mutexes
// themselves are never destroyed, and a handle's release leaves its mutex be.
// They are registered for fork(), as the guards are (_kern.cc).
kern_n::detail::immortal_t<mutex_t> s_name_mutexes[dso_lock_count];

void keep_name_mutex(mutex_t*) noexcept {}

}  // namespace

void dso_lock(char const* name, late_locker_t<mutex_t>& locker) {
    unsigned const index = static_cast<unsigned>(lstr_t(name).calc_hash64() % dso_lock_count);
    DYNALOG("[DynaLib] Locking DSO index=%u \"%s\"", index, drop_root(name ? name : "").c_str());
    mutex_t* m;
    bool made = false;
    {
        xlocker_t<mutex_t> hold(s_dso_giant_lock);
        sh_fast_mutex_t& slot = s_dso_locks[index];
        if (!slot) {
            slot = sh_fast_mutex_t(&s_name_mutexes[index].make(), &keep_name_mutex);
            made = true;
        }
        m = slot.get();
    }
    // Registered without the giant lock, which a fork may be waiting for.
    if (made) kern::syncers::detail::fork_safe(*m);
    // The mutex is never destroyed, so the bare pointer stays good.
    locker.xlock(*m);
}

std::string drop_root(std::string name) {
    std::string const& root = cache::s_libdir;
    if (!root.empty() && name.size() >= root.size() && name.compare(0, root.size(), root) == 0)
        name.erase(0, root.size());
    return name;
}

// --- the cache -----------------------------------------------------------------------

namespace cache {

storage_t::storage_t() : count(0) { DYNALOG("[DynaLib] Storage created @%p", static_cast<void*>(this)); }

storage_t::~storage_t() {
    try {
        DYNALOG("[DynaLib] Storage destroying @%p", static_cast<void*>(this));
    } catch (...) {
    }
}

bool locate(sh_impl& lib) { return find_cached(lib, false); }

void store(sh_impl const& lib) {
    if (!lib) return;
    xlocker_t<mutex_t> hold(s_storage_guard);
    storage_t* const s = s_storage.get();
    if (!s) {
        DYNALOG("[DynaLib] Store not enabled, library \"%s\"", shown(lib->name).c_str());
        return;
    }
    std::pair<storage_t::set_t::iterator, bool> const r = s->items.insert(lib);
    if (r.second) ++s->count;
    sh_impl const& entry = *r.first;
    entry->last = kern::time::now();
    DYNALOG("[DynaLib] %s impl (use=%u this=%p handle=%p last=%s) \"%s\"", r.second ? "Stored" : "Duplicate",
            use_of(entry), static_cast<void*>(entry.get()), entry->handle, stamp_text(entry->last).c_str(),
            shown(entry->name).c_str());
}

void flush_if_need() {
    // A time to live longer than the calendar so far reaches before year 1,
    // where stamps have no text; "no time" (tick 0) keeps every entry too.
    timestamp_t const threshold = std::max(kern::time::now() - s_time_to_live, timestamp_t());
    // Dropped images are closed after the guard is let go: a module's
    // destructors may use the cache themselves.
    std::vector<sh_impl> dropped;
    xlocker_t<mutex_t> hold(s_storage_guard);
    storage_t* const s = s_storage.get();
    if (!s) {
        DYNALOG("[DynaLib] Flush (if olded %s) not available", stamp_text(threshold).c_str());
        return;
    }
    DYNALOG("[DynaLib] Flush (if olded %s) started (%u here)", stamp_text(threshold).c_str(), s->count);
    for (storage_t::set_t::iterator it = s->items.begin(); it != s->items.end();) {
        sh_impl const& e = *it;
        // Only the guard hands out references to a cached image, so a use
        // count of 1 seen under it cannot grow before the erase.
        bool const drop = e->last <= threshold && e.use_count() <= 1;
        DYNALOG("[DynaLib] %s library (use=%u this=%p handle=%p last=%s) \"%s\"", drop ? "Drop" : "Keep", use_of(e),
                static_cast<void*>(e.get()), e->handle, stamp_text(e->last).c_str(), shown(e->name).c_str());
        if (drop) {
            dropped.push_back(e);
            it = s->items.erase(it);
            --s->count;
        } else {
            ++it;
        }
    }
}

sh_storage_t flush_all_int() {
    sh_storage_t detached;
    if (s_storage) DYNALOG("[DynaLib] Flush (all now) started (%u here)", s_storage->count);
    detached.swap(s_storage);
    return detached;
}

void flush_all_now() {
    sh_storage_t detached;  // released after the guard
    xlocker_t<mutex_t> hold(s_storage_guard);
    if (!s_storage) {
        DYNALOG("[DynaLib] Flush (all now) not enabled");
        return;
    }
    detached = flush_all_int();
}

void set_enabled() {
    xlocker_t<mutex_t> hold(s_storage_guard);
    if (s_storage) {
        DYNALOG("[DynaLib] Already enabled");
        return;
    }
    DYNALOG("[DynaLib] Set mode to enabled");
    s_storage = boost::make_shared<storage_t>();
}

void set_disabled() {
    sh_storage_t detached;  // released after the guard
    xlocker_t<mutex_t> hold(s_storage_guard);
    if (!s_storage) {
        DYNALOG("[DynaLib] Already disabled");
        return;
    }
    DYNALOG("[DynaLib] Set mode to disabled");
    detached = flush_all_int();
}

void set_libdir(std::string const& dir) {
    xlocker_t<mutex_t> hold(s_storage_guard);
    DYNALOG("[DynaLib] Set libdir to \"%s\"", dir.c_str());
    s_libdir = dir;
    if (!s_libdir.empty() && s_libdir.back() != '/') s_libdir += '/';
}

}  // namespace cache
}  // namespace dynalib
}  // namespace kern

// --- environment factory -------------------------------------------------------------

kern_n::if_environment_t::factory_t::factory_t(char const* lib, char const* path, if_progress_cb_t* cb) {
    try {
        try {
            QVL_CALLSTACK();
            init(lib, path);
            void* const sym = get_symbol("create");
            if (!sym) {
                error = "Unable to find \"create\" symbol";
                return;
            }
            if_environment_t* const made = reinterpret_cast<create_fn_t>(sym)(cb);
            if (made != env.get()) env.reset(made);
        } catch (abi::__forced_unwind&) {
            throw;  // a cancelled thread must go on unwinding
        } catch (std::exception const& e) {
            error = e.what();
        } catch (...) {
            error = "general error";
        }
    } catch (abi::__forced_unwind&) {
        throw;
    } catch (...) {
        // even the error text could not be stored
    }
}

kern_n::if_environment_t::factory_t::~factory_t() {
    // The object's code is in the module: destroy it before the base
    // releases the module.
    env.reset();
}
