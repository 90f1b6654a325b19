// A test environment module: create() builds an object that reports its
// life through the progress callback; with a null callback it returns null.
#include <qvlkern/dynamic_library.h>

namespace {

class test_environment_t : public kern_n::if_environment_t {
public:
    explicit test_environment_t(if_progress_cb_t* cb) : cb_(cb) { cb_->progress(0, "created"); }
    // The factory must destroy the object while this code is still mapped.
    ~test_environment_t() override { cb_->progress(100, "destroyed"); }

    int start(char const* args) override { return args ? 1 : 0; }
    int execute(int op, void*) override { return op * 2; }
    void stop() override { cb_->progress(50, "stopped"); }

private:
    if_progress_cb_t* cb_;
};

}  // namespace

extern "C" __attribute__((visibility("default"))) kern_n::if_environment_t* create(
    kern_n::if_environment_t::if_progress_cb_t* cb) {
    if (!cb) return nullptr;
    return new test_environment_t(cb);
}
