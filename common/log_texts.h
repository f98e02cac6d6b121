// Log lines by which a tool knows what became of a command, so the daemon
// writes them and the tools look for them. Macros, because a format is put
// together from them.
#pragma once

#define VANTREL_TEXT_FINISHED "Vantrel finished."
#define VANTREL_TEXT_STOP_RECEIVED "[C] Received STOP message."
#define VANTREL_TEXT_DUMP_BEGIN "----------- VANTREL DUMP -----------"
#define VANTREL_TEXT_DUMP_END "-------------------------------------"
// Followed by the round trip in milliseconds.
#define VANTREL_TEXT_PING_TIME "[B] PING TIME (ms): "
// Followed by the transfer's number.
#define VANTREL_TEXT_PULL_STARTED "[B] Starting pull request "
#define VANTREL_TEXT_PUSH_STARTED "[B] Starting push request "
#define VANTREL_TEXT_PULL "[B] Pull "
#define VANTREL_TEXT_PUSH "[B] Push "
// Behind the number of a transfer that is done; followed by its rate.
#define VANTREL_TEXT_PULL_COMPLETED " completed with an rx rate of "
#define VANTREL_TEXT_PUSH_COMPLETED " completed with an approx tx rate of "
// Followed by the length of the report in bytes.
#define VANTREL_TEXT_STATS_LENGTH \
  "OnTransferStatsResult, transfer stats length "
// Of a dump: what waits for the link; each followed by a number.
#define VANTREL_TEXT_DUMP_QUEUED_BYTES "   buf_bytes: "
#define VANTREL_TEXT_DUMP_QUEUED_MESSAGES "  buf_length: "
// Of a dump's stream, behind its id and its remote; each followed by a number.
#define VANTREL_TEXT_DUMP_STREAM_RX ", rx_bytes: "
#define VANTREL_TEXT_DUMP_STREAM_TX ", tx_bytes: "
#define VANTREL_TEXT_DUMP_STREAM_QUEUED ", buf_bytes: "
// A new stream: its id, its remote, its UID and its package follow one each.
#define VANTREL_TEXT_STREAM "[T:"
#define VANTREL_TEXT_STREAM_OPENED "] Establishing a new TCP stream to: "
#define VANTREL_TEXT_STREAM_UID " (uid="
#define VANTREL_TEXT_STREAM_PACKAGE ") (package="
