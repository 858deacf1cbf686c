#include "base/nftables.h"

#include <sys/select.h>
#include <sys/socket.h>

#include <linux/netlink.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <utility>

#include "unique_fd.h"

namespace kavel::agent {
namespace {

// A context caches the tables that it has seen, which takes half a megabyte: 650 MB for a thousand VPNs. A small number
// also means that a context is closed long after its last transaction. Closed right after it, its socket would wait
// until the kernel has freed what the transaction replaced.
constexpr std::size_t kContextsMax = 8;

// libnftables ends the whole process when it gets no socket, or one with a descriptor that select() cannot use. It will
// get the descriptor that is free now.
void CheckSocket()
{
    const UniqueFd probe(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_NETFILTER));
    if (!probe) {
        ThrowLastErrno("nftables");
    }
    if (probe.Get() >= FD_SETSIZE) {
        ThrowErrno(EMFILE, "nftables");
    }
}

nft_ctx *OpenContext()
{
    CheckSocket();
    return nft_ctx_new(NFT_CTX_DEFAULT);
}

} // namespace

NftablesContext::NftablesContext() : context_(OpenContext())
{
    if (!context_ || nft_ctx_buffer_output(context_.get()) != 0 || nft_ctx_buffer_error(context_.get()) != 0) {
        throw std::bad_alloc();
    }
}

std::string NftablesContext::Run(const std::string &commands)
{
    errno = 0;
    if (nft_run_cmd_from_buffer(context_.get(), commands.c_str()) == 0) {
        return nft_ctx_get_output_buffer(context_.get());
    }
    // The library leaves the kernel's answer in errno. EAGAIN means that a socket was read to its end: no answer came.
    const int error = errno;
    std::string text = nft_ctx_get_error_buffer(context_.get());
    text.resize(std::min(text.find('\n'), text.size()));
    throw NftablesError(error == 0 || error == EAGAIN ? EIO : error, std::move(text));
}

NftablesContexts::NftablesContexts(const Namespaces &namespaces) : contexts_(namespaces, kContextsMax) {}

} // namespace kavel::agent
