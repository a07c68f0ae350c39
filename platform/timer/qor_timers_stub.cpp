// Placeholder until the one-shot timers land.
void qorTimerFireExpired() {}
