// The table of pieces that extend the gateway. Each piece is one file and one line here.

#include "gateway.h"

extern const Piece console_piece;
extern const Piece log_piece;
extern const Piece log_writer_piece;
extern const Piece processes_piece;

namespace {

// A command goes to the first piece that takes it. The processes take any, so they stand last.
const Piece *const kPieces[] = {
    &log_piece, &console_piece, &log_writer_piece, &processes_piece, nullptr,
};

int started = 0;

}  // namespace

bool piecesStart() {
    for (; kPieces[started] != nullptr; ++started) {
        if (kPieces[started]->start != nullptr && !kPieces[started]->start()) {
            report("%s could not start", kPieces[started]->name);
            return false;
        }
    }
    return true;
}

void piecesStop() {
    while (started > 0) {
        const Piece *piece = kPieces[--started];
        if (piece->stop != nullptr) {
            piece->stop();
        }
    }
}

void piecesNote(const char *line) {
    for (int i = 0; i < started && kPieces[i] != nullptr; ++i) {
        if (kPieces[i]->note != nullptr) {
            kPieces[i]->note(line);
        }
    }
}

bool piecesTakeCommand(Client *client, const char *line) {
    for (int i = 0; i < started && kPieces[i] != nullptr; ++i) {
        if (kPieces[i]->command != nullptr && kPieces[i]->command(client, line)) {
            return true;
        }
    }
    return false;
}
