#ifndef ARVO_HAL_H
#define ARVO_HAL_H

/* The platform HAL: device sessions and ION shared memory. All calls return 0 on success and
 * a negative HAL code on failure. */

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef uint32_t arvo_hal_handle_t; /* an open device; 0 = none */
typedef uint32_t arvo_hal_mem_t;    /* a memory object; 0 = none */

/* HAL result codes. */
#define ARVO_HAL_OK 0
#define ARVO_HAL_ERR_GENERIC (-1000)
#define ARVO_HAL_ERR_INVALID (-1001)
#define ARVO_HAL_ERR_NO_MEMORY (-1002)
#define ARVO_HAL_ERR_NOT_FOUND (-1003)
#define ARVO_HAL_ERR_ALREADY_OPEN (-1004) /* device already open; the handle is still usable */
#define ARVO_HAL_ERR_NOT_INITIALIZED (-1005)
#define ARVO_HAL_ERR_ACCESS (-1006)

/* Device states as read by arvo_hal_device_get_state. */
#define ARVO_HAL_DEVICE_STOPPED 1
#define ARVO_HAL_DEVICE_RUNNING 2

/* A device table is a sequence of entries of eight machine words: the node path, the attach
 * and detach functions, five reserved zero words; an entry whose path is null ends it. */
int arvo_hal_initialize(const void *device_table);
int arvo_hal_deinitialize(void);

/* Attach/detach functions of the ION allocator, for device tables. */
int arvo_hal_attach_ion_mem(arvo_hal_handle_t device, void *param);
int arvo_hal_detach_ion_mem(arvo_hal_handle_t device, void *param);

int arvo_hal_device_open(const char *name, void *param, arvo_hal_handle_t *handle);
int arvo_hal_device_get_state(arvo_hal_handle_t handle, uint8_t *state);
int arvo_hal_device_start(arvo_hal_handle_t handle, void *param);
int arvo_hal_device_stop(arvo_hal_handle_t handle, void *param);
int arvo_hal_device_close(arvo_hal_handle_t handle);

/* ION memory. Sizes are in bytes; `size` of arvo_hal_mem_alloc is used as given. */
int arvo_hal_mem_import(arvo_hal_handle_t ion, arvo_hal_mem_t *memory, uint64_t share_handle);
int arvo_hal_mem_alloc(arvo_hal_handle_t ion, arvo_hal_mem_t *memory, uint32_t size,
                       uint32_t alignment, uint32_t flags, uint32_t heap_id);
int arvo_hal_mem_share(arvo_hal_mem_t memory, uint64_t *share_handle);
int arvo_hal_mem_get_size(arvo_hal_mem_t memory, uint32_t *size);
int arvo_hal_mem_map(arvo_hal_mem_t memory, uint8_t **virtual_base);
int arvo_hal_mem_get_phys_addr(arvo_hal_mem_t memory, uint32_t *physical_address);
int arvo_hal_mem_sync(arvo_hal_mem_t memory, int direction);
int arvo_hal_mem_unmap(arvo_hal_mem_t memory);
int arvo_hal_mem_free(arvo_hal_mem_t memory);

#ifdef __cplusplus
}
#endif

#endif /* ARVO_HAL_H */
