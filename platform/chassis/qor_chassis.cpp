#include "chassis/qor_chassis.h"

#include <cstring>

namespace {
QorChassisModel g_model;
uint32_t g_svce = 76, g_inst = 0;
bool g_ready = false;
int g_semStorage[4];
}  // namespace

QorChassisModel &qorChassisModel() { return g_model; }
void qorChassisReset() {
  g_model = QorChassisModel{};
  g_ready = false;
  g_svce = 76;
  g_inst = 0;
}

int QOR_NbsdpInit(int, char **, char **) { return 0; }
void qorDdbInit(char **) {}

void qorTaskSetIdentity(uint32_t svce, uint32_t inst) {
  g_svce = svce;
  g_inst = inst;
}
// The key packs service and instance so that the two getters need no table.
int32_t qorTaskStartup(int, char **, int) {
  if (g_model.taskStartupFails) return -1;
  return static_cast<int32_t>((g_svce << 12) | (g_inst & 0xFFF));
}
uint32_t qorTaskGetServiceByKey(int32_t key) { return static_cast<uint32_t>(key) >> 12; }
uint32_t qorTaskGetInstanceByKey(int32_t key) { return static_cast<uint32_t>(key) & 0xFFF; }
int qorTaskReady(int32_t) {
  g_ready = true;
  return 0;
}
bool qorTaskIsReady() { return g_ready; }

SEM_ID semBCreate(int, int) {
  ++g_model.semaphores;
  return &g_semStorage[g_model.semaphores & 3];
}

int qorChmRegister(int32_t, int, int) {
  ++g_model.chmRegisterCalls;
  if (g_model.chmRegisterFailures > 0) {
    --g_model.chmRegisterFailures;
    return -1;
  }
  return 0;
}
int qorChmGetL3TableCfg(int32_t, uint8_t *record) {
  if (!g_model.l3TableAvailable || !record) return -1;
  memcpy(record, g_model.l3Table, sizeof g_model.l3Table);
  return 0;
}

int qorHaIsPrimaryRpm() { return g_model.primaryRpm ? 1 : 0; }
int qorSendSyncMsgAckToRam(uint32_t, uint32_t) {
  ++g_model.syncAcks;
  return 0;
}
int qorSendDataSyncResultToRam(uint32_t, uint32_t, int) {
  ++g_model.syncResults;
  return 0;
}

int qorIssuRegister(int32_t, int) {
  ++g_model.issuRegisterCalls;
  if (g_model.issuRegisterFailures > 0) {
    --g_model.issuRegisterFailures;
    return -1;
  }
  return 0;
}
int qorIssuSendUpdate(int32_t, int state) {
  ++g_model.issuUpdates;
  g_model.lastIssuState = state;
  return 0;
}
int qorEvhSubscribeEvt(int32_t, uint32_t) { return 0; }
