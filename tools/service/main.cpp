// orvex_service: the reference server that demonstrations and tests run against.

#include <fmt/core.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include "tools/service/http_server.h"
#include "tools/service/reference_service.h"
#include "tools/service/word_net.h"

namespace {

constexpr int wrongUsage = 2, cannotServe = 1;

struct Arguments {
    orvex::HTTPServer::Options server;
    orvex::ReferenceService::Options service;
    std::string bagFile;
    std::string wordNet = orvex::WordNet::defaultDirectory;
};

void declare(CLI::App& program, Arguments& arguments) {
    program.add_option("--port", arguments.server.port, "Port on 127.0.0.1; 0 is any")->capture_default_str();
    auto* certificate = program.add_option("--tls-cert", arguments.server.certificate, "Certificate chain, PEM");
    auto* key = program.add_option("--tls-key", arguments.server.key, "Its private key, PEM");
    certificate->needs(key)->check(CLI::ExistingFile);
    key->needs(certificate)->check(CLI::ExistingFile);
    program
        .add_option("--feedback-dir", arguments.service.feedbackDirectory, "Where uploads are kept; absent: nowhere")
        ->check(CLI::ExistingDirectory);
    program.add_option("--bag", arguments.bagFile, "Serve this file as the bag")->check(CLI::ExistingFile);
    program.add_option("--wordnet", arguments.wordNet, "Directory of the WordNet database")->capture_default_str();
    program.add_flag("--log-requests", arguments.service.logsRequests, "Print each request as a line of JSON");
    program.set_version_flag("--version", "orvex_service/" ORVEX_VERSION);
}

int fail(const orvex::platform::Failure& failure) {
    fmt::print(stderr, "orvex_service: {}\n", failure.text);
    return cannotServe;
}

// Waits for SIGINT or SIGTERM, which every thread has blocked.
void awaitEnd(const sigset_t& ends) {
    int signal = 0;
    while (sigwait(&ends, &signal) != 0) continue;
}

int serve(Arguments& arguments) {
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGINT);
    sigaddset(&ends, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &ends, nullptr);

    const auto words = orvex::WordNet::open(arguments.wordNet);
    if (!words) return fail(words.error());
    orvex::ReferenceService service(**words, std::move(arguments.service));
    const auto server = orvex::HTTPServer::listen(
        arguments.server, [&service](const orvex::ServerRequest& request) { return service.answer(request); },
        [&service](const orvex::ServerRequest& head) { return service.cut(head); });
    if (!server) return fail(server.error());
    service.setConnectionCount([&server] { return (*server)->connectionsAccepted(); });

    std::jthread running([&server] { (*server)->run(); });
    fmt::print("listening on {}\n", (*server)->port());
    std::fflush(stdout);
    awaitEnd(ends);
    (*server)->stop();
    return 0;
}

}  // namespace

int main(int argc, char** argv) try {
    Arguments arguments;
    CLI::App program("Serves bag, searches, resources and uploads for orvexd, on 127.0.0.1", "orvex_service");
    declare(program, arguments);
    try {
        program.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return program.exit(error) == 0 ? 0 : wrongUsage;
    }
    if (!arguments.bagFile.empty()) {
        std::ifstream file(arguments.bagFile, std::ios::binary);
        arguments.service.bag.assign(std::istreambuf_iterator<char>(file), {});
    }
    return serve(arguments);
} catch (const std::exception& error) {
    fmt::print(stderr, "orvex_service: {}\n", error.what());
    return cannotServe;
}
