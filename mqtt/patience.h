#pragma once

// While it exists, a call that waits (for a lock, for a connection) is interrupted by a signal
// after 10 seconds, and fails with EINTR.
class Patience {
public:
    Patience();
    ~Patience();
    Patience(const Patience&) = delete;
    Patience& operator=(const Patience&) = delete;
};
