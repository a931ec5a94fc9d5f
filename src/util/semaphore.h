// Byte-range semaphores in one file of the product root; number n is the byte at offset n. They belong to the process.
#pragma once

/// Opens (and creates) the semaphore file; ends the process with status 1 when that fails.
void init_sem();
/// Waits for semaphore n. Any failure ends the process with status 1.
void sem_lock(long n);
/// 0 when taken, -1 when another process holds it.
int sem_lock_nonblock(long n);
/// Releases semaphore n.
void sem_unlock(long n);
/// Closes the file, which releases everything.
void shutdown_sem();
