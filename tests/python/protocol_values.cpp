// Prints the values of <usbd/protocol.h> that the Python client keeps its own copy of, one
// "name value" a line, so that its tests can hold the copy to them.
#include <cstdio>

#include <usbd/protocol.h>

int main()
{
    std::printf("socket_path %s\n", usbd::kSocketPath);
    std::printf("max_request_size %zu\n", usbd::kSocketMaxRequestSize);
    std::printf("max_segments %zu\n", usbd::kMaxSegments);
    std::printf("header_size %zu\n", usbd::kSocketHeaderSize);
    std::printf("kind_at %zu\n", usbd::kSocketKindAt);
    std::printf("request_id_at %zu\n", usbd::kSocketRequestIdAt);
    std::printf("kind_send %u\n", usbd::kSocketKindSend);
    std::printf("kind_interrupt %u\n", usbd::kSocketKindInterrupt);
    std::printf("entry_size %zu\n", usbd::kSocketEntrySize);
    std::printf("entry_type_at %zu\n", usbd::kSocketEntryTypeAt);
    std::printf("entry_size_at %zu\n", usbd::kSocketEntrySizeAt);
    std::printf("entry_offset_at %zu\n", usbd::kSocketEntryOffsetAt);
    std::printf("entry_alignment_at %zu\n", usbd::kSocketEntryAlignmentAt);
    std::printf("entry_padding_at %zu\n", usbd::kSocketEntryPaddingAt);
    std::printf("entry_handle_at %zu\n", usbd::kSocketEntryHandleAt);
    std::printf("end_entry_size %zu\n", usbd::kSocketEndEntrySize);
    std::printf("entry_end %u\n", usbd::kSocketEntryEnd);
    std::printf("entry_memory %u\n", usbd::kSocketEntryMemory);
    std::printf("entry_handle %u\n", usbd::kSocketEntryHandle);
    std::printf("response_size %zu\n", usbd::kSocketResponseSize);
    std::printf("response_id_at %zu\n", usbd::kSocketResponseIdAt);
    std::printf("response_status_at %zu\n", usbd::kSocketResponseStatusAt);
    std::printf("status_sent %d\n", usbd::kSocketStatusSent);
    std::printf("status_failed %d\n", usbd::kSocketStatusFailed);
    return 0;
}
