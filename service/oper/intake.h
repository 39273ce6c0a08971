// Request intake: the two service threads that turn the bytes of the client FIFOs into subscriptions, one-shot requests
// and driver restarts. One intake with a few differing settings. Never allocates.
#pragma once

#include <cstdint>

inline constexpr std::int32_t IntakeBufferBytes = 0x10200;

// Each belongs to its own thread.
extern std::int32_t GuiFifo_fd, MekFifo_fd;        // read descriptor
extern std::int32_t GuiFifo_index, MekFifo_index;  // bytes held in the buffer
extern unsigned char guififo_buf[IntakeBufferBytes];
extern unsigned char mekfifo_buf[IntakeBufferBytes];

// Thread bodies; they never return.
void gui_service_thread();
void mek_service_thread();

// One read and the dispatch of whatever whole frames it completes.
void CheckGuiRtList();
void CheckMekRtList();
