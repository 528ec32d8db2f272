#include "Platform/alsa/Subscribers.h"

// The kernel's interface, because libasound can query the free room of the calling client only.
#include <sound/asequencer.h>
#include <sys/ioctl.h>

namespace tessary {

std::vector<Subscriber> subscribersOf(int sequencer, int client, int port) {
    std::vector<Subscriber> subscribers;
    snd_seq_query_subs query{};
    query.root = {.client = static_cast<unsigned char>(client), .port = static_cast<unsigned char>(port)};
    query.type = SNDRV_SEQ_QUERY_SUBS_READ;
    for (; ioctl(sequencer, SNDRV_SEQ_IOCTL_QUERY_SUBS, &query) == 0; ++query.index) {
        snd_seq_client_info info{};
        snd_seq_client_pool pool{};
        info.client = pool.client = query.addr.client;
        if (ioctl(sequencer, SNDRV_SEQ_IOCTL_GET_CLIENT_INFO, &info) != 0 ||
            ioctl(sequencer, SNDRV_SEQ_IOCTL_GET_CLIENT_POOL, &pool) != 0)
            continue;
        subscribers.push_back(
            {info.client, info.type == USER_CLIENT && pool.input_pool > 0, pool.input_free, pool.input_pool});
    }
    return subscribers;
}

} // namespace tessary
