// Holding back the signals that end a process, while it changes several files that belong together.
#pragma once

namespace tarvo {

// Holds back SIGALRM, SIGTERM, SIGINT, SIGHUP and SIGXCPU for as long as it lives. One that arrives
// meanwhile is not lost: it takes effect when the outermost guard goes. That holds of the watchdog
// too, so that a worker whose alarm() has run out during an update ends right behind it; setting
// the alarm again does not take a signal back that is already pending.
//
// Whoever waits must stay mortal: WholeFileLock and the waits for the disk let the signals through.
// Guards nest.
class HeldSignals {
  public:
    HeldSignals();
    HeldSignals(const HeldSignals&) = delete;
    HeldSignals& operator=(const HeldSignals&) = delete;
    HeldSignals(HeldSignals&&) = delete;
    HeldSignals& operator=(HeldSignals&&) = delete;
    ~HeldSignals();

  private:
    bool outermost_;
};

// Lets them through again for as long as it lives, for a wait (for the next lock, for the network)
// in the middle of what a HeldSignals guards; does nothing where none does. What has arrived by
// then takes effect at once: before the wait there must stand on the disk what may stand there for
// ever. No HeldSignals may begin and outlive it, or end before it.
class ReleasedSignals {
  public:
    ReleasedSignals();
    ReleasedSignals(const ReleasedSignals&) = delete;
    ReleasedSignals& operator=(const ReleasedSignals&) = delete;
    ReleasedSignals(ReleasedSignals&&) = delete;
    ReleasedSignals& operator=(ReleasedSignals&&) = delete;
    ~ReleasedSignals();

  private:
    bool held_before_;
};

}  // namespace tarvo
