// A slave driver's instance. Two libraries implement it, tcp_slave.cpp and rtu_slave.cpp; each driver links one.
#pragma once

#include "voq/plc_driver.h"

struct Slave;

[[nodiscard]] Slave* NewSlave();
void FreeSlave(Slave* slave);

inline constexpr int IdleMs = 20;  // the longest wait of a turn in which nothing arrives

// One turn: waits a little for requests, serves what has arrived whole. Returns a PLC_DRV_ code.
[[nodiscard]] int SlaveTurn(Slave& slave, const ComInfoRecord& info, const UserOper& oper);
