// Measures whether a pull costs the same for each MiB of its reply, whatever the size of the reply.
//
//     pull_growth [ROUNDS]
//
// A child process plays the daemon, so that the processor time of this process is that of the
// client alone. Every round pulls each size once in each state of the memory; the best round
// counts. Everything happens in namespaces of its own.
//
// What the C library does with memory is told apart: "new" memory comes from the kernel, page by
// page, as in a process that has just begun; "kept" memory was used before and freed. Without care
// for that, a pull would pay for merging what the pull before it freed.
#include "conf_plugin.h"
#include "sandbox.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <malloc.h>
#include <string>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr std::array sizes = {1, 4, 16}; // MiB

[[noreturn]] void give_up(const char *what)
{
    std::perror(what);
    std::exit(1);
}

// ---- the daemon --------------------------------------------------------------------------------

// A configuration of at least that many MiB: entries of a list, with small leaves.
std::string configuration(int mebibytes)
{
    const std::size_t size = static_cast<std::size_t>(mebibytes) << 20;
    std::string text = R"(<interfaces xmlns="urn:ietf:params:xml:ns:yang:ietf-interfaces">)";
    for (int i = 0; text.size() < size; ++i) {
        const std::string number = std::to_string(i);
        text += "<interface><name>eth" + number + "</name><description>uplink " + number +
                "</description><type>ethernetCsmacd</type><enabled>true</enabled><ipv4><mtu>1500"
                "</mtu><address><ip>10.0." +
                std::to_string(i % 256) +
                ".1</ip>"
                "<prefix-length>24</prefix-length></address></ipv4></interface>";
    }
    return text + "</interfaces>";
}

// Answers every request; a pull of the path "1", for instance, with the second configuration.
void serve(int sock)
{
    std::array<std::string, sizes.size()> configurations;
    std::transform(sizes.begin(), sizes.end(), configurations.begin(), configuration);
    msg_head_t head{};
    while (recv(sock, &head, sizeof head, MSG_WAITALL) == sizeof head) {
        std::string request(head.length, '\0');
        (void)recv(sock, request.data(), request.size(), MSG_WAITALL);
        std::string body = "<reply><result>";
        if (const std::size_t path = request.find("<path>");
            request.find("<method>pull<") != std::string::npos) {
            body += "<data>" +
                    configurations.at(static_cast<std::size_t>(request.at(path + 6) - '0')) +
                    "</data>";
        }
        const std::size_t id = request.rfind("<id>");
        body += "</result>" + request.substr(id, request.rfind("</rpc>") - id) + "</reply>";
        head = {MSG_MAGIC, static_cast<u32_t>(body.size()), 0, 0};
        (void)send(sock, &head, sizeof head, MSG_NOSIGNAL);
        (void)send(sock, body.data(), body.size(), MSG_NOSIGNAL); // blocks until all is sent
    }
}

void start_daemon()
{
    const int listener = conf_plugin_service_enable();
    const pid_t child = listener < 0 ? -1 : fork();
    if (child < 0) {
        give_up("daemon");
    }
    if (child == 0) {
        (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
        int sock = -1;
        while (sock < 0) {
            sock = accept(listener, nullptr, nullptr);
            (void)usleep(1000);
        }
        serve(sock);
        _exit(0);
    }
    (void)close(listener);
}

// ---- the client --------------------------------------------------------------------------------

// The C library must not choose for itself when to give memory back: that depends on what it has
// seen before.
void fix_memory_policy()
{
    (void)mallopt(M_TRIM_THRESHOLD, std::numeric_limits<int>::max());
    (void)mallopt(M_MMAP_THRESHOLD, 32 << 20);
}

void prepare_memory(bool kept)
{
    if (kept) {
        void *volatile block = std::malloc(4096); // large enough for the C library to merge
        std::free(block);
    } else {
        (void)malloc_trim(0);
    }
}

// In milliseconds for each MiB.
double pull(std::size_t index, bool kept)
{
    prepare_memory(kept);
    const std::string path = std::to_string(index);
    xmlNode *list = nullptr;
    const std::clock_t begin = std::clock();
    const int result = econf_plugin_pull(0, path.c_str(), &list);
    const auto spent = static_cast<double>(std::clock() - begin);
    if (result != 0 || list == nullptr) {
        std::fprintf(stderr, "the pull of %d MiB failed\n", sizes.at(index));
        std::exit(1);
    }
    xmlFreeNodeList(list);
    return spent * 1000 / CLOCKS_PER_SEC / sizes.at(index);
}

} // namespace

int main(int count, char **arguments)
{
    const int rounds = count > 1 ? std::atoi(arguments[1]) : 15;
    std::string error;
    if (!sandbox::enter({}, error)) {
        std::fprintf(stderr, "no sandbox: %s\n", error.c_str());
        return 1;
    }
    start_daemon();
    fix_memory_policy();
    econf_plugin_subpub_info_t callbacks{};
    if (econf_plugin_init("growth", &callbacks) < 0 ||
        econf_plugin_activate(ACTIVATE_WITH_NONE) != 0) {
        give_up("plugin");
    }

    std::array<std::array<double, sizes.size()>, 2> best;
    best[0].fill(std::numeric_limits<double>::max());
    best[1] = best[0];
    for (int round = 0; round < rounds; ++round) {
        for (const bool kept : {false, true}) {
            for (std::size_t i = 0; i < sizes.size(); ++i) {
                best.at(kept).at(i) = std::min(best.at(kept).at(i), pull(i, kept));
            }
        }
    }
    econf_plugin_close();

    std::printf("processor time of the client in ms/MiB, best of %d\n", rounds);
    for (const bool kept : {false, true}) {
        std::printf("%s memory:", kept ? "kept" : "new ");
        for (std::size_t i = 0; i < sizes.size(); ++i) {
            std::printf(" %5d MiB %7.2f", sizes.at(i), best.at(kept).at(i));
        }
        std::printf("   largest to smallest %.3f\n", best.at(kept).back() / best.at(kept).front());
    }
    return 0;
}
