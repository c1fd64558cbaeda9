// gRPC over a socket of the file system, with its synchronous interface: calls, and for what is
// pushed a stream in both directions. Its threads run on the same processor.
#include "peers.h"

#include "peer.grpc.pb.h"

#include <grpcpp/grpcpp.h>

namespace {

using bench::grpc_peer::Peer;
using bench::grpc_peer::Text;

constexpr const char *address = "unix:/var/tmp/peer";

Text text_of(std::string_view content)
{
    Text text;
    text.set_content(content.data(), content.size());
    return text;
}

class service final : public Peer::Service {
    grpc::Status Ask(grpc::ServerContext * /*context*/, const Text *request, Text *reply) override
    {
        reply->set_content(bench::reply_to(request->content()));
        return grpc::Status::OK;
    }

    grpc::Status Push(grpc::ServerContext * /*context*/,
                      grpc::ServerReaderWriter<Text, Text> *stream) override
    {
        const Text operation = text_of(bench::operation);
        Text received;
        bool good = stream->Read(&received);
        const std::size_t burst = bench::number(received.content());
        while (good) {
            for (std::size_t i = 0; i < burst; ++i) {
                (void)stream->Write(operation);
            }
            for (std::size_t i = 0; i < burst && good; ++i) {
                good = stream->Read(&received);
            }
        }
        return grpc::Status::OK;
    }
};

// One peer for all works: once the library has threads, this process can no longer be forked.
void start_peer()
{
    (void)bench::started([](int ready) {
        service peer;
        grpc::ServerBuilder builder;
        builder.AddListeningPort(address, grpc::InsecureServerCredentials());
        builder.RegisterService(&peer);
        const auto server = builder.BuildAndStart();
        if (server != nullptr && bench::send_all(ready, "ready")) {
            server->Wait();
        }
    });
}

class client {
public:
    client()
    {
        grpc::ChannelArguments arguments;
        arguments.SetMaxReceiveMessageSize(-1);
        peer_ = Peer::NewStub(
            grpc::CreateCustomChannel(address, grpc::InsecureChannelCredentials(), arguments));
    }
    client(const client &) = delete;
    client &operator=(const client &) = delete;
    ~client()
    {
        context_.TryCancel();
        if (stream_ != nullptr) {
            (void)stream_->Finish();
        }
    }

    bool ask(const std::string &request, std::size_t size)
    {
        grpc::ClientContext context;
        Text reply;
        return peer_->Ask(&context, text_of(request), &reply).ok() &&
               bench::is_reply(reply.content(), size);
    }
    void start(int burst)
    {
        stream_ = peer_->Push(&context_);
        (void)stream_->Write(text_of(std::to_string(burst)));
    }
    void handle(bench::progress &operations)
    {
        operations.one_handled(stream_->Read(&received_) &&
                               received_.content() == bench::operation &&
                               stream_->Write(text_of(bench::operation_reply)));
    }

private:
    std::unique_ptr<Peer::Stub> peer_;
    grpc::ClientContext context_;
    std::unique_ptr<grpc::ClientReaderWriter<Text, Text>> stream_;
    Text received_;
};

} // namespace

int main(int count, char **arguments)
{
    bench::prepare();
    start_peer();
    bench::add_peer<client>("grpc");
    return bench::run(count, arguments);
}
