// Stand-ins for the process shim, the chassis manager, the high-availability (redundancy)
// manager and the ISSU manager.
//
// In a chassis these are other processes; here each is a small in-process model with a
// documented default: task start-up succeeds, chassis and ISSU registration succeed, this is
// the primary route processor, and the L3 table configuration is not available (so the daemon
// keeps its built-in defaults). Each can be told to fail so that the retry and fallback paths
// of the daemon can be exercised.
#pragma once

#include <cstdint>

// Process shim. QOR_NbsdpInit and qorDdbInit succeed.
int QOR_NbsdpInit(int argc, char **argv, char **envp);
void qorDdbInit(char **argv);

// The task key carries the service and instance given by qorTaskSetIdentity (default 76, 0).
void qorTaskSetIdentity(uint32_t svce, uint32_t inst);
int32_t qorTaskStartup(int argc, char **argv, int flags);
uint32_t qorTaskGetServiceByKey(int32_t key);
uint32_t qorTaskGetInstanceByKey(int32_t key);
int qorTaskReady(int32_t key);
bool qorTaskIsReady();

// The one binary semaphore of the daemon.
using SEM_ID = void *;
SEM_ID semBCreate(int options, int initialState);

// Chassis manager.
int qorChmRegister(int32_t key, int card, int flag);
// Fills `record` (84 bytes) with the L3 table configuration; -1 when unavailable.
int qorChmGetL3TableCfg(int32_t key, uint8_t *record);

// Redundancy manager.
int qorHaIsPrimaryRpm();
int qorSendSyncMsgAckToRam(uint32_t svce, uint32_t inst);
int qorSendDataSyncResultToRam(uint32_t svce, uint32_t inst, int result);

// ISSU manager and event subscriptions.
int qorIssuRegister(int32_t key, int flag);
int qorIssuSendUpdate(int32_t key, int state);
int qorEvhSubscribeEvt(int32_t key, uint32_t event);

// What the stand-ins were asked and how they answer (tests and the debug shell).
struct QorChassisModel {
  // Behaviour.
  int chmRegisterFailures = 0;   // the next N qorChmRegister calls return -1
  bool l3TableAvailable = false; // qorChmGetL3TableCfg answers with `l3Table`
  uint8_t l3Table[84] = {};
  bool primaryRpm = true;
  bool taskStartupFails = false;
  int issuRegisterFailures = 0;
  // Observations.
  int chmRegisterCalls = 0;
  int issuRegisterCalls = 0;
  int issuUpdates = 0;
  int lastIssuState = -1;
  int syncAcks = 0;
  int syncResults = 0;
  int semaphores = 0;
};
QorChassisModel &qorChassisModel();
void qorChassisReset();
