// A file of any length, sent in pieces, each of which the service confirms.
#include <algorithm>
#include <cstdlib>
#include <mutex>

#include "Ask.h"
#include "Pair.h"

namespace {

using nipcconnector::NIPCConnector;

// [send]
constexpr std::size_t pieceSize = 1024 * 1024;  // Up to 5242880 with what is before it; a smaller one holds up less.

/// Sends all of `file`. A piece that was not confirmed is sent again: it says where it belongs, so that it does no
/// harm when it was taken after all.
bool sendFile(NIPCConnector& client, const std::string& file) {
    for (std::size_t offset = 0; offset < file.size(); offset += pieceSize) {
        const std::string piece = std::to_string(offset) + ":" + file.substr(offset, pieceSize);
        int triesLeft = 3;
        while (!howto::ask(client, "putPiece", piece, std::chrono::seconds(5)))
            if (--triesLeft == 0) return false;
    }
    return true;
}
// [send]

// [receive]
constexpr std::size_t longestFile = 64 * 1024 * 1024;

struct Upload {
    std::mutex mutex;
    std::string content;
};

using Respond = std::function<void(bool, const char*, unsigned int)>;

/// Puts a piece where it says it belongs; false when it says nothing sensible.
bool putPiece(Upload& upload, const std::string& piece) {
    const std::size_t colon = piece.find(':');
    const std::size_t offset = std::strtoul(piece.c_str(), nullptr, 10);
    if (colon == std::string::npos || offset > longestFile) return false;
    const std::size_t length = piece.size() - colon - 1;
    const std::lock_guard<std::mutex> lock(upload.mutex);
    upload.content.resize(std::max(upload.content.size(), offset + length));
    upload.content.replace(offset, length, piece, colon + 1, length);
    return true;
}

void receiveFiles(NIPCConnector& server, const std::shared_ptr<Upload>& upload) {
    server.registerAsyncRequestHandler(
        "putPiece", [upload](const char* data, unsigned int length, const Respond& respond, const std::string&) {
            respond(putPiece(*upload, std::string(data, length)), nullptr, 0);
        });
}
// [receive]

}  // namespace

int main() {
    const howto::Pair pair("files", 4302);
    const auto upload = std::make_shared<Upload>();
    receiveFiles(*pair.server, upload);
    if (!pair.connect()) return 1;

    std::string file(3 * pieceSize + 17, '\0');
    for (std::size_t i = 0; i < file.size(); ++i) file[i] = static_cast<char>(i * 31 / 7);
    if (!sendFile(*pair.client, file)) return 1;
    const std::lock_guard<std::mutex> lock(upload->mutex);
    return upload->content == file ? 0 : 1;
}
