#pragma once

/// Makes stdin, stdout or stderr a stream on a descriptor 0 to 2 that has become a device's, and libc's own again on
/// one that no longer is. Other descriptors are left alone.
void FollowStandardStream(int fd);
