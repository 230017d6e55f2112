// <C2PlatformSupport.h>: the way to the platform's block pools.
#pragma once

#include <C2Buffer.h>
#include <C2Component.h>

#include <memory>

#pragma GCC visibility push(default)
namespace android {

// Makes the block pool `id`, a new one at every call: BASIC_LINEAR over the system heap, or
// BASIC_GRAPHIC, whose pictures are laid out by <xc2/Platform.h>. `component` is ignored.
// `*pool` is emptied first and must not be null.  [any thread]
//   C2_OK         made
//   C2_NOT_FOUND  no such pool
c2_status_t GetCodec2BlockPool(C2BlockPool::local_id_t id,
                               std::shared_ptr<const C2Component> component,
                               std::shared_ptr<C2BlockPool>* pool);

}  // namespace android
#pragma GCC visibility pop
