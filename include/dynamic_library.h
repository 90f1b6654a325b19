// dynamic_library.h: loadable modules shared through a process-wide cache,
// and the factory of environment objects that live in such modules.
//
// dynamic_library_t is a handle on a module opened with the dynamic loader.
// Handles on the same file share one loaded image (dynamic_library_t::impl)
// through the cache in kern::dynalib::cache: releasing a handle puts the
// image back into the cache stamped with the time, and the image is closed
// only once nobody holds it and it has stayed idle longer than the time to
// live (QVLSRV_DYNALIB_TTL seconds, 60 by default), when a client calls
// flush_if_need. The cache is off until set_enabled(); while it is off every
// handle opens its own image, closed with the handle.
//
//   kern::dynalib::cache::set_enabled();
//   dynamic_library_t lib("crypto", "/opt/agent/modules");  // libcrypto.so
//   auto fn = reinterpret_cast<int (*)()>(lib.get_symbol("entry"));
//   lib.reset();                                  // cached, still mapped
//   kern::dynalib::cache::flush_if_need();        // now and then
//
// kern_n::if_environment_t::factory_t opens a module, calls its exported
// create() and keeps the object; it never throws, a failure leaves error().
//
// Thread safety: any thread may open, release and flush at any time. A handle
// belongs to one thread at a time. The cache's guard (s_storage_guard)
// protects the storage, its entries' `last` times and s_libdir; it is never
// held while a module is opened or closed. Opening one name is serialised by
// one of five name locks (but for a load nested in another, see below); the
// name lock is taken before the guard, never after. An image leaves the
// cache only while the cache holds its last reference, and only the guard
// hands out new references, so no module is closed while a handle holds it.
// set_libdir belongs to configuration: drop_root reads s_libdir without the
// guard, for messages only.
//
// Choices left open elsewhere and made here:
//  - get_name() of a handle without an image is a reference to one static
//    empty string.
//  - The cache never flushes by itself: a daemon calls flush_if_need from
//    its housekeeping (once a minute is plenty); flush_all_now at shut-down
//    or to force the modules out.
//  - A cache miss re-checks the cache once its name lock is held, and stores
//    the new image before letting the lock go: threads that open one name
//    together cause one dlopen, the others take the stored image (logged as
//    found).
//  - An image that failed to load is never stored: releasing it logs
//    "Reset not loaded library", and get_symbol on it answers null.
//  - flush_if_need and flush_all_now close the images they drop after the
//    guard is released, so a module's own destructors may use the cache;
//    flush_all_int therefore hands the detached storage back to its caller.
//  - The signature of a module is looked up only when the process logger
//    takes trace level 1 messages, the only case where its text is logged.
//  - The default constructor logs "[DynaLib] Create @%p library", the one
//    that opens a module "[DynaLib] Create library (this=%p)".
//  - if_environment_t's three operations are start, execute and stop, and
//    if_progress_cb_t has one, progress; their meaning is the module's.
//  - factory_t owns its object through std::unique_ptr and offers get_env,
//    release_env and get_error.
//  - QVLSRV_DYNALIB_TTL saturates at the most whole seconds a timegap_t
//    holds (92,233,720,368, about 2,922 years): a larger count would wrap
//    into a negative time to live and drop every idle image at once. A
//    threshold that would fall before year 1 is shown as "no time",
//    00000000000000000.
//  - s_storage_guard, s_dso_giant_lock, s_storage and the mutexes that the
//    name lock slots hand out are never destroyed, so that threads still
//    running while the process ends can open and release modules; at exit
//    the storage is released under the guard and the slots' handles are
//    released one by one, leaving their mutexes be.
//  - A load nested in another on the same thread (a module's initialiser
//    opening a module) takes no name lock: it runs under the outer load's
//    lock and the loader's own, and waiting for a name lock there could
//    never end, whether the lock is its own thread's (two names sharing one
//    of the five) or another thread's that waits for the loader. Another
//    thread opening the same inner name meanwhile may then open it too; the
//    later store is a "Duplicate" and that handle keeps its own image.
#ifndef QVLKERN_DYNAMIC_LIBRARY_H
#define QVLKERN_DYNAMIC_LIBRARY_H

#include <boost/shared_ptr.hpp>
#include <memory>
#include <set>
#include <string>

#include "amtypes.h"
#include "kern-config.h"
#include "syncers.h"
#include "time-objs.h"

class QVL_API dynamic_library_t : public virtual if_root_t, private noncopyable_t {
public:
    // One loaded image of a module file.
    class QVL_API impl : private noncopyable_t {
    public:
        // Builds the file name: path + "/" (path given and not empty), "lib"
        // (unless lib starts with it), lib, ".so" (unless lib has a "."). The
        // image is not loaded yet.
        impl(char const* lib, char const* path);
        // Closes the module if it was loaded.
        ~impl();

        // Opens the file with immediate binding; throws
        // library_load_exception_shell_t.
        void load();
        // The symbol's address; null when missing or not loaded.
        void* symbol(char const* name) const;

        std::string name;  // full file name given to the loader
        void* handle;      // the loader's handle, null until loaded
        timestamp_t last;  // creation, or last return to the cache
    };
    // Use count = handles holding the image plus the cache's own entry.
    typedef boost::shared_ptr<impl> sh_impl;

    dynamic_library_t();
    // init(lib, path).
    dynamic_library_t(char const* lib, char const* path);
    // Releases the image as reset() does.
    ~dynamic_library_t() override;

    // Opens the module (through the cache when it is enabled), dropping the
    // image held before. Throws library_load_exception_shell_t; the handle
    // then holds the unloaded image.
    void init(char const* lib, char const* path);
    // Address of an exported symbol, or null (no exception).
    void* get_symbol(char const* name) const;
    // The image's file name.
    std::string const& get_name() const;
    // Gives the image back to the cache and lets it go.
    void reset();

    // The image held, empty before init and after reset.
    sh_impl const& get_impl() const noexcept { return image_; }
    // True when the handle holds a loaded image.
    bool is_loaded() const noexcept { return image_ && image_->handle; }

private:
    sh_impl image_;
};

namespace kern {
namespace dynalib {

typedef boost::shared_ptr<mutex_t> sh_fast_mutex_t;

// Number of name locks.
constexpr unsigned dso_lock_count = 5;

// Set when QVLSRV_DEBUG_DYNALIB is present: the "[DynaLib]" messages are
// logged at DEBUG_3.
extern QVL_API bool DEBUG;
// Held only while a name lock's mutex is created.
extern QVL_API mutex_t& s_dso_giant_lock;
// The name locks, made on first use.
extern QVL_API sh_fast_mutex_t s_dso_locks[dso_lock_count];

// Locks the name lock of name (its slice hash modulo 5) into locker, which
// first lets go of what it held.
QVL_API void dso_lock(char const* name, late_locker_t<mutex_t>& locker);
// name without a leading s_libdir, for messages.
QVL_API std::string drop_root(std::string name);

namespace cache {

// Orders images by name, byte by byte, a prefix first.
struct QVL_API less_t {
    bool operator()(dynamic_library_t::sh_impl const& a, dynamic_library_t::sh_impl const& b) const noexcept {
        return a->name < b->name;
    }
};

// The cached images and their count.
class QVL_API storage_t : private noncopyable_t {
public:
    typedef std::set<dynamic_library_t::sh_impl, less_t> set_t;

    // Logs "[DynaLib] Storage created @%p".
    storage_t();
    // Logs "[DynaLib] Storage destroying @%p"; unreferenced images close.
    ~storage_t();

    set_t items;
    unsigned count;  // items.size()
};
typedef boost::shared_ptr<storage_t> sh_storage_t;

// Empty while the cache is disabled.
extern QVL_API sh_storage_t& s_storage;
// Protects s_storage, its contents and s_libdir.
extern QVL_API mutex_t& s_storage_guard;
// Idle time after which flush_if_need drops an unheld image.
extern QVL_API timegap_t s_time_to_live;
// Cut from the front of names in messages; ends with "/" when not empty.
extern QVL_API std::string s_libdir;

// Replaces lib by the cached image of the same name, taking over lib's
// `last`; false when not cached or the cache is disabled.
QVL_API bool locate(dynamic_library_t::sh_impl& lib);
// Inserts lib unless an image of that name is cached, and stamps the cached
// entry with the time.
QVL_API void store(dynamic_library_t::sh_impl const& lib);
// Drops the entries idle at least s_time_to_live that only the cache holds.
QVL_API void flush_if_need();
// Drops every entry and disables the cache.
QVL_API void flush_all_now();
// Detaches the storage (the cache is then disabled) and hands it back, so
// that the caller releases it after letting go of the guard it holds.
QVL_API sh_storage_t flush_all_int();
QVL_API void set_enabled();
QVL_API void set_disabled();
QVL_API void set_libdir(std::string const& dir);

}  // namespace cache
}  // namespace dynalib
}  // namespace kern

namespace kern_n {

// A service object implemented by a loadable module.
class QVL_API if_environment_t {
public:
    // Progress reports from the module while it builds its object.
    class QVL_API if_progress_cb_t {
    public:
        virtual ~if_progress_cb_t() {}
        // percent done (0 to 100) and what is being done.
        virtual void progress(int percent, char const* text) = 0;
    };

    // Opens the module lib in path and calls its create(cb). Never throws:
    // on failure get_env() is null and get_error() tells why.
    class QVL_API factory_t : public dynamic_library_t {
    public:
        factory_t(char const* lib, char const* path, if_progress_cb_t* cb);
        // Destroys the object while its module is still loaded.
        ~factory_t() override;

        std::string const& get_error() const noexcept { return error; }
        if_environment_t* get_env() const noexcept { return env.get(); }
        // Hands the object over; the caller must destroy it before this
        // factory goes.
        if_environment_t* release_env() noexcept { return env.release(); }

        std::string error;                    // empty on success
        std::unique_ptr<if_environment_t> env;  // null on failure
    };

    // The module's entry point, exported as extern "C" `create`.
    typedef if_environment_t* (*create_fn_t)(if_progress_cb_t* cb);

    virtual ~if_environment_t() {}
    virtual int start(char const* args) = 0;
    virtual int execute(int op, void* data) = 0;
    virtual void stop() = 0;
};

}  // namespace kern_n

#endif  // QVLKERN_DYNAMIC_LIBRARY_H
