// A libquilm.so that takes no memory while it works, so that every allocation of a process is the
// tool's. Comes with a malloc() that fails on demand, and claims a recurrent model of four inputs
// and one output, whose execution does nothing. The environment says what happens:
//
//   TINY_FAIL=N      the N-th allocation after the start of the process fails; N+: all from there
//   on TINY_THROW=F:T   the function F throws a T: int, or a std::runtime_error TINY_LOCALE=L
//   quilm_init() puts the process into the locale L
//
// On standard error it says when it has been initialised and finalised, and counts the allocations.
#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "runtime/quilm.h"

// The C library's own.
// NOLINTBEGIN(bugprone-reserved-identifier, readability-identifier-naming)
extern "C" void* __libc_malloc(size_t size);
extern "C" void* __libc_calloc(size_t count, size_t size);
extern "C" void* __libc_realloc(void* memory, size_t size);
// NOLINTEND(bugprone-reserved-identifier, readability-identifier-naming)

struct quilm_data_buffer {
  void* pointer;
  size_t size;
};

struct quilm_mdl_dataset {
  quilm_data_buffer* buffers[8];
  size_t count;
};

struct quilm_mdl_desc {};

namespace {

bool counting = false;
long allocations = 0;
long failing = 0;
bool allFollowing = false;

bool IsRefused() {
  if (!counting) {
    return false;
  }
  ++allocations;
  errno = ENOMEM;
  return allocations == failing || (allFollowing && allocations > failing);
}

void Say(const char* text) {
  static_cast<void>(!write(STDERR_FILENO, text, std::strlen(text)));
}

// Runs after the C++ library has taken the memory that it throws std::bad_alloc from.
__attribute__((constructor)) void Start() {
  if (const char* fail = std::getenv("TINY_FAIL")) {
    failing = std::strtol(fail, nullptr, 10);
    allFollowing = std::strchr(fail, '+') != nullptr;
  }
  counting = true;
}

__attribute__((destructor)) void End() {
  char text[40];
  std::snprintf(text, sizeof(text), "%ld allocations\n", allocations);
  Say(text);
}

// What every call begins with.
void Enter(const char* function) {
  const char* thrown = std::getenv("TINY_THROW");
  const size_t size = std::strlen(function);
  if (thrown != nullptr && std::strncmp(thrown, function, size) == 0 && thrown[size] == ':') {
    if (std::strcmp(thrown + size, ":int") == 0) {
      throw 1;
    }
    throw std::runtime_error("thrown by a test");
  }
}

char deviceMemory[1 << 20];
size_t taken = 0;
quilm_mdl_desc description;
quilm_data_buffer buffers[4096];
size_t createdBuffers = 0;
quilm_mdl_dataset datasets[1024];
size_t createdDatasets = 0;

}  // namespace

extern "C" {

void* malloc(size_t size) {
  return IsRefused() ? nullptr : __libc_malloc(size);
}
void* calloc(size_t count, size_t size) {
  return IsRefused() ? nullptr : __libc_calloc(count, size);
}
void* realloc(void* memory, size_t size) {
  return IsRefused() ? nullptr : __libc_realloc(memory, size);
}

quilm_error quilm_init(const char*) {
  if (const char* locale = std::getenv("TINY_LOCALE")) {
    counting = false;
    Say(std::setlocale(LC_ALL, locale) == nullptr ? "no such locale\n" : "");
    counting = true;
  }
  Say("initialised\n");
  Enter(__func__);
  return 0;
}

quilm_error quilm_finalize(void) {
  Say("finalised\n");
  Enter(__func__);
  return 0;
}

#define TINY(Result, function, parameters, ...) \
  Result function parameters {                  \
    Enter(__func__);                            \
    return __VA_ARGS__;                         \
  }

TINY(quilm_error, quilm_rt_set_device, (int32_t), 0)
TINY(quilm_error, quilm_rt_reset_device, (int32_t), 0)
TINY(quilm_error, quilm_rt_set_op_wait_timeout, (uint32_t), 0)
TINY(quilm_error, quilm_rt_create_context, (quilm_rt_context * context, int32_t),
     *context = deviceMemory, 0)
TINY(quilm_error, quilm_rt_destroy_context, (quilm_rt_context), 0)
TINY(quilm_error, quilm_rt_create_stream, (quilm_rt_stream * stream), *stream = deviceMemory, 0)
TINY(quilm_error, quilm_rt_destroy_stream, (quilm_rt_stream), 0)
TINY(quilm_error, quilm_rt_get_run_mode, (uint32_t * mode), *mode = 0, 0)
TINY(quilm_error, quilm_rt_malloc, (void** pointer, size_t size, int32_t),
     *pointer = deviceMemory + taken, taken += size, taken <= sizeof(deviceMemory) ? 0 : 1)
TINY(quilm_error, quilm_rt_free, (void*), 0)
TINY(quilm_error, quilm_mdl_load_from_mem, (const void*, size_t, uint32_t* id), *id = 5, 0)
TINY(quilm_error, quilm_mdl_unload, (uint32_t), 0)
TINY(quilm_mdl_desc*, quilm_mdl_create_desc, (void), &description)
TINY(quilm_error, quilm_mdl_destroy_desc, (quilm_mdl_desc*), 0)
TINY(quilm_error, quilm_mdl_get_desc, (quilm_mdl_desc*, uint32_t), 0)
TINY(size_t, quilm_mdl_get_num_inputs, (const quilm_mdl_desc*), 4)
TINY(size_t, quilm_mdl_get_num_outputs, (const quilm_mdl_desc*), 1)
TINY(quilm_error, quilm_mdl_get_input_dims,
     (const quilm_mdl_desc*, size_t index, quilm_mdl_io_dims* dims),
     *dims = {{static_cast<char>('a' + index)}, 2, {1, 4}}, 0)
TINY(quilm_error, quilm_mdl_get_output_dims,
     (const quilm_mdl_desc*, size_t, quilm_mdl_io_dims* dims), *dims = {"y", 2, {1, 4}}, 0)
TINY(int32_t, quilm_mdl_get_input_data_type, (const quilm_mdl_desc*, size_t), 0)
TINY(int32_t, quilm_mdl_get_output_data_type, (const quilm_mdl_desc*, size_t), 0)
TINY(size_t, quilm_mdl_get_input_size_by_index, (const quilm_mdl_desc*, size_t), 16)
TINY(size_t, quilm_mdl_get_output_size_by_index, (const quilm_mdl_desc*, size_t), 16)
TINY(size_t, quilm_mdl_get_input_default_stride, (const quilm_mdl_desc*, size_t), 16)
TINY(size_t, quilm_mdl_get_output_default_stride, (const quilm_mdl_desc*, size_t), 16)
TINY(int32_t, quilm_mdl_get_input_format, (const quilm_mdl_desc*, size_t), 0)
TINY(int32_t, quilm_mdl_get_output_format, (const quilm_mdl_desc*, size_t), 0)
TINY(const char*, quilm_mdl_get_output_name_by_index, (const quilm_mdl_desc*, size_t), "y")
TINY(quilm_mdl_dataset*, quilm_mdl_create_dataset, (void), &datasets[createdDatasets++])
TINY(quilm_error, quilm_mdl_destroy_dataset, (quilm_mdl_dataset*), 0)
TINY(quilm_error, quilm_mdl_add_dataset_buffer,
     (quilm_mdl_dataset * dataset, quilm_data_buffer* buffer),
     dataset->buffers[dataset->count++] = buffer, 0)
TINY(size_t, quilm_mdl_get_dataset_num_buffers, (const quilm_mdl_dataset* dataset), dataset->count)
TINY(quilm_data_buffer*, quilm_mdl_get_dataset_buffer,
     (const quilm_mdl_dataset* dataset, size_t index), dataset->buffers[index])
TINY(quilm_data_buffer*, quilm_create_data_buffer, (void* pointer, size_t size, size_t),
     buffers[createdBuffers] = {pointer, size}, &buffers[createdBuffers++])
TINY(quilm_error, quilm_destroy_data_buffer, (quilm_data_buffer*), 0)
TINY(void*, quilm_get_data_buffer_addr, (const quilm_data_buffer* buffer), buffer->pointer)
TINY(size_t, quilm_get_data_buffer_size, (const quilm_data_buffer* buffer), buffer->size)
TINY(size_t, quilm_data_type_size, (int32_t), 32)
TINY(quilm_error, quilm_mdl_set_dynamic_batch_size,
     (uint32_t, quilm_mdl_dataset*, size_t, uint64_t), 0)
TINY(quilm_error, quilm_ext_get_mdl_net_type, (uint32_t, int32_t* type), *type = 2, 0)
TINY(quilm_error, quilm_mdl_set_total_t, (uint32_t, quilm_mdl_dataset*, int64_t), 0)
TINY(quilm_error, quilm_mdl_execute, (uint32_t, const quilm_mdl_dataset*, quilm_mdl_dataset*), 0)
}
