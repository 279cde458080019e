#ifndef ARVO_HAL_SIM_H
#define ARVO_HAL_SIM_H

/* Extras of the project's stand-in HAL, for tests and for the device emulator. They are NOT
 * part of the platform HAL: nothing in the daemon may use them, and on the device they do not
 * exist. */

#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* How often arvo_hal_initialize has been called in this process (failed calls included). */
int arvo_sim_initialize_count(void);

/* How many opens of the device node `name` are outstanding (each open, including one answered
 * with ARVO_HAL_ERR_ALREADY_OPEN, needs its own close); 0 when it is not open. */
int arvo_sim_device_open_count(const char *name);

/* How many memory objects this process holds (allocated or imported, not yet freed). */
int arvo_sim_memory_count(void);

/* Forgets everything: closes all devices, unmaps and frees all memory objects, clears the
 * counters and leaves the HAL uninitialised, as in a fresh process. */
void arvo_sim_reset(void);

/* Finds the bytes behind a physical address as seen by process `pid` (any thread id of it):
 * the HAL memory held by that process whose range [base, base + size) contains
 * [phys, phys + length). On success returns 0 with *fd_out a new read-only, close-on-exec
 * descriptor of that memory (the caller closes it) and *offset_out = phys - base.
 * ARVO_HAL_ERR_NOT_FOUND: no memory of that process contains phys.
 * ARVO_HAL_ERR_INVALID: the range runs past the end of the memory, or a null out pointer. */
int arvo_sim_resolve_phys(pid_t pid, uint32_t phys, uint32_t length, int *fd_out,
                          uint64_t *offset_out);

#ifdef __cplusplus
}
#endif

#endif /* ARVO_HAL_SIM_H */
