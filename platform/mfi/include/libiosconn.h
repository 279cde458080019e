#ifndef LIBIOSCONN_H
#define LIBIOSCONN_H

/* The MFi link library: the link to an app on an iOS device, over MFi (USB) or Wi-Fi. */

#ifdef __cplusplus
extern "C" {
#endif

/* Link states reported by iosconn_isconnect. */
#define IOSCONN_NOT_CONNECTED 0
#define IOSCONN_MFI 1
#define IOSCONN_WIFI 2

int iosconn_init(void);
int iosconn_start(int link_id);
/* The state of the link; `which` 1 selects the data link. */
int iosconn_isconnect(int which);
/* Sends header and payload as one frame; returns the bytes written including the header,
 * or a negative value on failure. */
int iosconn_send_with_header(int link_id, const void *header, int header_len, const void *payload,
                             int payload_len, int flags);
/* Hands the library a file record or a shared-memory record to deliver itself; > 0 on success. */
int iosconn_send_file(int link_id, const void *record, int flags);
int iosconn_send_shm(int link_id, const void *record, int flags);

#ifdef __cplusplus
}
#endif

#endif /* LIBIOSCONN_H */
