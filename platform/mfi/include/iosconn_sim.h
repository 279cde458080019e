#ifndef IOSCONN_SIM_H
#define IOSCONN_SIM_H

/* How the project's stand-in MFi link library reaches the emulated iOS peer. This is NOT part
 * of the platform library: the daemon never includes it; the stand-in and the device emulator
 * (which plays the iOS side) share it.
 *
 * The peer listens on a Unix stream socket. Each library call that sends is one message on it:
 * the head below, then meta_length bytes (the frame header or the record exactly as the caller
 * handed it over), then data_length bytes (the frame's payload, or the file or shared-memory
 * bytes the record names, read by the library). padding_length zero bytes follow the data in
 * the request; they are not sent. The peer answers every message with one int32, the value the
 * library call returns. Both ends run on one machine, so fields are in host byte order. */

#include <stdint.h>

#define IOSCONN_SIM_PEER_SOCKET "/run/mfi/peer.sock"
#define IOSCONN_SIM_LINK_STATE "/run/mfi/link-state"

#define IOSCONN_SIM_FRAME 1 /* meta: the frame header; data: the payload */
#define IOSCONN_SIM_FILE                                                                           \
    2 /* meta: the file record with its path and zero byte; data: the file's bytes */
#define IOSCONN_SIM_SHM 3 /* meta: the shared-memory record; data: the memory's bytes */

/* Sizes of the records as the library reads them. */
#define IOSCONN_SIM_FRAME_HEADER 32
#define IOSCONN_SIM_FILE_RECORD 24 /* before the path */
#define IOSCONN_SIM_SHM_RECORD 30
/* Largest meta part: a file record with the longest path its 16-bit length allows. */
#define IOSCONN_SIM_MAX_META (IOSCONN_SIM_FILE_RECORD + 65535 + 1)

struct iosconn_sim_head {
    uint32_t kind;
    uint32_t meta_length;
    uint32_t data_length;
    uint32_t padding_length;
};

#endif /* IOSCONN_SIM_H */
