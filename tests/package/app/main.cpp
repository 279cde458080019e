// An application outside the tree: encodes the documented example request.
#include <usbd/client.h>

#include <cstdio>

int main()
{
    usbd::client::SendRequest request(42);
    request.addMemory("hello", 5);
    const std::vector<std::uint8_t> bytes = request.encode();
    usbd::client::Response response;
    const std::uint8_t answer[8] = {42, 0, 0, 0, 0, 0, 0, 0};
    if (!usbd::client::decodeResponse(answer, sizeof answer, &response) || !response.sent())
        return 1;
    std::printf("%zu\n", bytes.size());
    return 0;
}
