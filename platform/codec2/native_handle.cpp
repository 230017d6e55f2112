#include <cutils/native_handle.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

native_handle_t* native_handle_create(int numFds, int numInts) {
    if (numFds < 0 || numInts < 0) return nullptr;
    const size_t items = static_cast<size_t>(numFds) + static_cast<size_t>(numInts);
    auto* handle =
        static_cast<native_handle_t*>(std::malloc(sizeof(native_handle_t) + items * sizeof(int)));
    if (handle != nullptr) {
        handle->version = sizeof(native_handle_t);
        handle->numFds = numFds;
        handle->numInts = numInts;
    }
    return handle;
}

int native_handle_close(const native_handle_t* h) {
    if (h->version != sizeof(native_handle_t)) return -EINVAL;
    for (int i = 0; i < h->numFds; ++i) close(h->data[i]);
    return 0;
}

int native_handle_delete(native_handle_t* h) {
    if (h->version != sizeof(native_handle_t)) return -EINVAL;
    std::free(h);
    return 0;
}
