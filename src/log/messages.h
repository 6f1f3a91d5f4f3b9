// The numbered log message formats, in table order.
//
// Every log line of the agent is one of these formats (or a literal of the
// operation that reports it). Each format is a macro so that call sites pass
// a string literal to ulog() and the compiler checks the arguments; the
// table logMessage() holds the same texts by their fixed number (1..197).
// The texts are the system's own, typos included: do not correct them.
#pragma once

namespace tavik {

inline constexpr int kMessageCount = 197;

// The format with the given number (1..kMessageCount), or nullptr.
const char* logMessage(int number);

}  // namespace tavik

#define MSG_TAVIK_STOPPED "Tavik stopped"  // 1
#define MSG_RECEIVED_DISCONNECT_FROM "%sReceived disconnect from %s"  // 2
#define MSG_FAILED_CREATE "%sFailed to create %s (%s)"  // 3
#define MSG_FAILED_RECEIVE_PATTERNS_FILTER "%sFailed to receive patterns for filter"  // 4
#define MSG_START_COMPARE_JOB_FROM_DESTINATION "%sStart Compare Job From %s(%s), Destination = %s"  // 5
#define MSG_FAIED_OPEN "%sFaied to open %s (%s)"  // 6
#define MSG_FAILED_CHMOD "%sFailed in chmod for %s (%s)"  // 7
#define MSG_FAILED_START_TAVIK "%sFailed to start Tavik"  // 8
#define MSG_BIND_WRONG_PORT "%sBind to a wrong port"  // 9
#define MSG_FAILED_GET_REQUEST_PACKET "%sFailed to get Request Packet, Job Abort"  // 10
#define MSG_FAILED_FORK_JOB_ABORT "%sFailed in fork (%s), Job Abort"  // 11
#define MSG_START_RESTORE_JOB_FROM_DESTINATION "%sStart Restore Job From %s(%s), Destination = %s"  // 12
#define MSG_START_BACKUP_JOB_FROM_SOURCE "%sStart Backup Job From %s(%s), Source = %s"  // 13
#define MSG_INVALID_UNIX_PATH_JOB_ABORT "%sInvalid Unix Path, Job Abort"  // 14
#define MSG_FAILED_CHANGE_DIRECTORY_JOB_ABORT "%sFailed to change directory to %s (%s), Job Abort"  // 15
#define MSG_FAILED_SET_NONBLOCKING "%sFailed to set tcpfd2 in non-blocking mode, Job Abort"  // 16
#define MSG_FAILED_RECEIVE_STARTING_SIGNAL "%sFailed to receive starting signal, Job Abort %s"  // 17
#define MSG_FAILED_SET_BLOCKING "%sFailed to set tcpfd2 in blocking mode, Job Abort"  // 18
#define MSG_FAILED_CREATE_SOCKET "%sFailed to create socket (%s)"  // 19
#define MSG_CANNOT_RECEIVE_DISCONNECT_FROM "%sCannot Receive disconnect from %s\n"  // 20
#define MSG_FAILED_GET_ATTRIBUTES_STAT "%sFailed to get the attributes (stat) of %s (%s)"  // 21
#define MSG_WORKSTATION_BACKUP_ENDED "%sWorkstation Backup Ended"  // 22
#define MSG_FAILED_GET_SHARED_MEMORY "%sFailed to get shared memory (%s)"  // 23
#define MSG_FAILED_ATTACH_SHARED_MEMORY "%sFailed to attach shared memory (%s)"  // 24
#define MSG_FAILED_GET_SEMAPHORE "%sFailed to get semaphore (%s)"  // 25
#define MSG_FAILED_INITIALIZE_SEMAPHORE "%sFailed to initialize semaphore (%s)"  // 26
#define MSG_FAILED_SEMAPHORE_OPERATION "%sFailed in semaphore operation (%s)"  // 27
#define MSG_FAILED_BIND_SOCKET_ADDRESS "%sFailed to bind socket address (%s)"  // 28
#define MSG_FAILED_OPEN_REGULAR "%sFailed to open regular file %s (%s)"  // 29
#define MSG_FAILED_LOCK "%sFailed to lock file %s (%s)"  // 30
#define MSG_FAILED_READ_CONTENTS_SYMBOLIC_LINK "%sFailed to read the contents of the symbolic link file %s (%s)"  // 31
#define MSG_FAILED_ACCESS_SPECIAL "%sFailed to access special file %s"  // 32
#define MSG_FAILED_SEND_ATTRIBUTES "%sFailed to send the attributes of file %s"  // 33
#define MSG_FAILED_SET_TIME "%sFailed to set time for file %s (%s)"  // 34
#define MSG_SHM_EMPTY_TOO_LONG "%sShared memory buffer is empty for too long, Job Abort."  // 35
#define MSG_FAILED_OPEN_SOURCE_DIR "%sFailed to open source dir %s (%s)"  // 36
#define MSG_FAILED_GET_ATTRIBUTES_LSTAT "%sFailed to get the attributes (lstat) of %s (%s)"  // 37
#define MSG_DETECTED_LINK_ITS_ANCESTOR "%sDetected link to its ancestor of file %s"  // 38
#define MSG_CANNOT_CREATE_PATH "%sCannot create path for <%s> (%s)"  // 39
#define MSG_FAILED_MAKE_DIRECTORY "%sFailed to make directory <%s> (%s)"  // 40
#define MSG_FAILED_CHANGE_OWNER "%sFailed to change owner for <%s> (%s)"  // 41
#define MSG_CANNOT_CREATE_SAME_NAME_DIRECTORY "%sCannot create <%s>, same name directory exists"  // 42
#define MSG_FAILED_UNLINK "%sFailed to unlink <%s> (%s)"  // 43
#define MSG_FAILED_CREATE_SPECIAL "%sFailed to create special file <%s> (%s)"  // 44
#define MSG_FAILED_WRITING "%sFailed in writing file <%s> (%s)"  // 45
#define MSG_FAILED_CREATE_SYMBOLIC_LINK_SYMLINK "%sFailed to create symbolic link: symlink(%s,%s) (%s)"  // 46
#define MSG_TIMED_OUT_RECEIVE_EXPECTED_RCVED "%sTimed out in Receive, expected = %d rcved = %d"  // 47
#define MSG_CAN_T_CREATE_HARDLINK "%sCan't create hardlink for <%s> & <%s> (%s)"  // 48
#define MSG_WORKSTATION_RESTORE_COMPLETED "%sWorkstation Restore Completed"  // 49
#define MSG_JOB_ABORTED_FRONT_END "%sJob aborted by front-end"  // 50
#define MSG_UNKNOWN_COMMAND "%sUnknown command: %x"  // 51
#define MSG_ONLY_SYSTEM_ADMINISTRATOR_CAN_RESTORE "%sOnly system administrator can restore special file"  // 52
#define MSG_TOO_MANY_LINKS "%sToo many links"  // 53
#define MSG_NO_MEMORY_LINKS "%sNo memory for links"  // 54
#define MSG_USER_NOT_DEFINED_PASSWORD "%sUser %s is not defined in the password file"  // 55
#define MSG_USER_NOT_DEFINED_SHADOW "%sUser %s is not defined in the shadow file"  // 56
#define MSG_WORKSTATION_COMPARE_ENDED "%sWorkstation Compare Ended"  // 57
#define MSG_FAILED_WAIT_PID "%sFailed in wait pid %d (%s)"  // 58
#define MSG_LOCKED_ANOTHER_PROCESS "%sFile %s is locked by another process"  // 59
#define MSG_FAILED_INITIALIZE_GROUP_ACCESS_LIST "%sFailed to initialize the group access list in initgroups(%s,%d) (%s)"  // 60
#define MSG_FAILED_SET_GROUP_ID "%sFailed to set group id %d (%s)"  // 61
#define MSG_FAILED_SET_USER_ID "%sFailed to set user id %d (%s)"  // 62
#define MSG_INCORRECT_PASSWORD "%sIncorrect password"  // 63
#define MSG_STACK_OVERFLOW "%sStack overflow (%s)\n"  // 64
#define MSG_STACK_EMPTY "%sStack empty!\n"  // 65
#define MSG_FAILED_CREATE_RESTORE_DIRECTORY "%sFailed to create restore directory %s"  // 66
#define MSG_FAILED_LISTEN_SOCKET "%sFailed in listen on socket (%s)"  // 67
#define MSG_FAILED_MALLOC_DIR_LIST "%sFailed in malloc for dir_list (%s)"  // 68
#define MSG_FAILED_MALLOC_DIRECTORY_NAME "%sFailed in malloc for directory name (%s)"  // 69
#define MSG_FAILED_ACCEPT "%sFailed in accept(), %s"  // 70
#define MSG_FAILED_SEND "%sFailed in send(), %s"  // 71
#define MSG_FAILED_RECV "%sFailed in recv(), %s"  // 72
#define MSG_FAIED_FDOPEN "%sFaied in fdopen file %s (%s)"  // 73
#define MSG_FAILED_ALLOCATE_MEMORY "%sFailed to allocate memory (%s)"  // 74
#define MSG_SPAN_TAPE_FAILED "%sSpan Tape Failed"  // 75
#define MSG_UNKNOWN_FILTER_TYPE "%sUnknown filter type: %x"  // 76
#define MSG_CANNOT_COPY "%sCannot copy file %s to %s"  // 77
#define MSG_SIZE_CHANGED "%sFile [%s] size is changed (%d -> %d)"  // 78
#define MSG_FAILED_READING "%sFailed in reading file [%s] (%s)"  // 79
#define MSG_CONTENT_CHANGED "%sFile [%s] content is changed"  // 80
#define MSG_FAILED_SEND_SIGNAL_PROCESS "%sFailed to send signal to process %d (%s)"  // 81
#define MSG_PUT_BACKUP_PROCESS_INTO_SLEEP "%sPut Backup Process(%d) into sleep"  // 82
#define MSG_WAKE_BACKUP_PROCESS_UP "%sWake Backup Process(%d) up"  // 83
#define MSG_FAILED_DETACH_SHARED_MEMORY "%sFailed to detach shared memory (%s)"  // 84
#define MSG_MODE_CHANGED "%sFile [%s] mode is changed (0%o -> 0%o)"  // 85
#define MSG_NUMBER_LINKS_CHANGED "%sFile [%s] number of links is changed (%d -> %d)"  // 86
#define MSG_USER_ID_CHANGED "%sFile [%s] user id is changed (%d -> %d)"  // 87
#define MSG_GROUP_ID_CHANGED "%sFile [%s] group id is changed (%d -> %d)"  // 88
#define MSG_RDEV_CHANGED "%sFile [%s] rdev is changed (%x -> %x)"  // 89
#define MSG_MODIFY_TIME_CHANGED "%sFile [%s] modify time is changed (%s -> %s)"  // 90
#define MSG_IGNORE_INVALID_FILTER "%sIgnore invalid filter [%s]"  // 91
#define MSG_PROTECTED_DIRECTORY "%sProtected Directory [%s] in %s"  // 92
#define MSG_FAILED_ACCESS_DIRECTORY "%sFailed to Access Directory [%s] (%s)"  // 93
#define MSG_SPECIFIED_IPC_NOT_REGISTERED "%sThe specified IPC was not registered"  // 94
#define MSG_SEND_COMMAND_0X_FAILED "%sSend command [0x%x] failed"  // 95
#define MSG_FAILED_RECEIVE_HEADER_PACKET "%sFailed to Receive Header Packet"  // 96
#define MSG_FAILED_RECEIVE_DATA_PACKET "%sFailed to Receive Data Packet"  // 97
#define MSG_EXCEEDS_MAXIMUM_LEVEL "%sDirectory travering exceeds the maximun level %d"  // 98
#define MSG_NFS_MOUNTED_DIRECTORY_SKIPPED "%sNFS mounted directory %s is skipped"  // 99
#define MSG_FAILED_SEND_ESTIMATION_NUMBERS "%sFailed to send estimation numbers"  // 100
#define MSG_PROTOCOL_ERROR_ACKNOWLEDGE_EXPECTED "%sProtocol error (Acknowledge expected)"  // 101
#define MSG_FAILED_STATVFS "%sFailed to statvfs(%s) (%s)"  // 102
#define MSG_TOTAL_GROOMED_FOR_SET "Total %d files were groomed for Helmsman set %s"  // 103
#define MSG_TOTAL_DELETED "Total %d files were deleted"  // 104
#define MSG_NOT_ENOUGH_SHARED_MEMORY "%sCan't get enough shared memory to work"  // 105
#define MSG_USAGE_B "  -b <bufsz>: specify I/O buffer size in bytes (%d..%d) [%d]\n"  // 106
#define MSG_USAGE_M "  -m <maxbuf>: specify number of buffers allocated for I/O (%d..%d) [%d]\n"  // 107
#define MSG_USAGE_P "  -p <tcp_port>: specify TCP port number (*) [%d]\n"  // 108
#define MSG_USAGE_V "  -v: verbose mode\n"  // 109
#define MSG_USAGE_L "  -l: check for advisory locks [mandatory locks only]\n"  // 110
#define MSG_USAGE_F "  -f: follow symbolic links (*)\n"  // 111
#define MSG_USAGE_N "  -n: backup NFS mounted directories\n"  // 112
#define MSG_USAGE_A "  -a <n>: acknowledge for every n packets [%s]\n"  // 113
#define MSG_USAGE_DEFAULTS "\n  [ ]: default values\n"  // 114
#define MSG_USAGE_KORVANE_ONLY "  (*): only work with Korvane 4.0\n"  // 115
#define MSG_I_O_BUFFER_SIZE_BYTES "* I/O buffer size:%d bytes"  // 116
#define MSG_NUMBER_I_O_BUFFER_ALLOCATED "* Number of I/O buffer allocated:%d"  // 117
#define MSG_TCP_PORT_NUMBER "* TCP port number:%d"  // 118
#define MSG_CHECK_ADVISORY_LOCKS "* Will check for advisory locks"  // 119
#define MSG_SYMBOLIC_LINKS_FOLLOWED "* Symbolic links will be followed"  // 120
#define MSG_NFS_DIRECTORIES_TRAVERSED "* NFS directories will be traversed"  // 121
#define MSG_ACKNOWLEDGE_EVERY_PACKET "* Will acknowledge for every %d packet(s)"  // 122
#define MSG_GAVE_UP_LOCK_IPC "%sGave up lock on tvk.ipc file for %c%d"  // 123
#define MSG_FAILED_REMOVE_SHARED_MEMORY "%sFailed to remove shared memory (%s)"  // 124
#define MSG_FAILED_REMOVE_SEMAPHORE "%sFailed to remove semaphore (%s)"  // 125
#define MSG_FAILED_BEGINGROOMING "%sFailed in BeginGrooming()"  // 126
#define MSG_FAILED_RECORD_GROOMING_RET "%sFailed to record %s for grooming, ret=%d"  // 127
#define MSG_GROOMING_INCOMPLETE "%sGrooming is incomplete"  // 128
#define MSG_GROOMING_FAILED "%sGrooming failed"  // 129
#define MSG_ENDGROOMING_UNKNOW_STATUS "%sEndGrooming() unknow status=%d"  // 130
#define MSG_RECVFROM_TIMEOUT "%srecvfrom(): timeout"  // 131
#define MSG_FAILED_RECVFROM "%sFailed in recvfrom() (%s)"  // 132
#define MSG_SHORT_MACHINE_QUERY "%sFailed to receive %d bytes machine query packet, length = %d"  // 133
#define MSG_FAILED_UNAME "%sFailed in uname() (%s)"  // 134
#define MSG_FAILED_SENDTO "%sFailed in sendto() (%s)"  // 135
#define MSG_SHORT_MACHINE_INFO "%sFailed to send %d bytes machine info, length = %d"  // 136
#define MSG_FAILED_USBSEND_LOGIN "%sFailed to usbSend LOGIN"  // 137
#define MSG_FAILED_RECEIVE "%sFailed in Receive"  // 138
#define MSG_FAILED_SENDDIRDATA "%sFailed in SendDirData"  // 139
#define MSG_FAILED_USBSEND_LOGOUT "%sFailed to usbSend LOGOUT"  // 140
#define MSG_FAILED_OPENDIR "%sFailed to opendir(%s) (%s)"  // 141
#define MSG_FAILED_USBSEND "%sFailed in usbSend()"  // 142
#define MSG_RECV_TIMEOUT "%srecv(): timeout"  // 143
#define MSG_FAILED_RECV_BYTES_LENGTH "%sFailed to recv %d bytes, length = %d"  // 144
#define MSG_SEND_TIMEOUT "%ssend(): timeout"  // 145
#define MSG_FAILED_SEND_BYTES_LENGTH "%sFailed to send %d bytes, length = %d"  // 146
#define MSG_DELETE "Delete %s"  // 147
#define MSG_USAGE_T "  -t: will not reset file access time after backup\n"  // 148
#define MSG_ACCESS_TIME_NOT_RESET "* File access time will not be reset"  // 149
#define MSG_SOCKET_BUFFER_SIZE_BYTES "* Socket buffer size:%d bytes"  // 150
#define MSG_USAGE_S "  -s <bufsz>: specify socket buffer size in bytes (%d..%d)\n"  // 151
#define MSG_SOCKET_I_O_SET_NON "* Socket I/O is set to non-blocking"  // 152
#define MSG_FAILED_SELECT "%sFailed in select(), %s"  // 153
#define MSG_FAILED_SETSOCKOPT "%sFailed in setsockopt(%d, %s, %d), %s"  // 154
#define MSG_STARTED_ON "Tavik v%d.%d%c %sstarted on %s (%s %s %s %s)"  // 155
#define MSG_BANNER "Korvane Client Agent v%d.%d%c %sfor %s\n"  // 156
#define MSG_USAGE_SINGLE "  -S: Single user mode\n"  // 157
#define MSG_OPERATE_SINGLE_USER_MODE "* Will operate in single user mode"  // 158
#define MSG_FILTER_FILE "%s file: %s"  // 159
#define MSG_INCLUDE "Include"  // 160
#define MSG_EXCLUDE "Exclude"  // 161
#define MSG_FILTER_DIRECTORY "%s directory: %s"  // 162
#define MSG_CREATED "created"  // 163
#define MSG_MODIFIED "modified"  // 164
#define MSG_LAST_ACCESSED "last accessed"  // 165
#define MSG_FILES_OR_BEFORE "%s files %s 'on or before' %.8s"  // 166
#define MSG_FILES_OR_AFTER "%s files %s 'on or after' %.8s"  // 167
#define MSG_FILES_BETWEEN "%s files %s 'between' %.8s and %.8s"  // 168
#define MSG_USAGE_R_KB "  -r <n>: reconnect TCP for every n KB of data transferred\n"  // 169
#define MSG_RECONNECT_TCP_EVERY_KB_DATA "* Reconnect TCP for every %d KB of data transferred"  // 170
#define MSG_USAGE_R_FILES "  -R <n>: reconnect TCP for every n files transferred\n"  // 171
#define MSG_RECONNECT_TCP_EVERY_FILES_TRANSFERRED "* Reconnect TCP for every %d files transferred"  // 172
#define MSG_USAGE_C "  -c <n>: sleep n milliseconds while waiting (%d..%d) [%d]\n"  // 173
#define MSG_SLEEP_TIME_MILLISECONDS "* Sleep time: %d milliseconds"  // 174
#define MSG_USAGE_E "  -e: backup will not traverse across file system\n"  // 175
#define MSG_NOT_TRAVERSE_ACROSS_SYSTEM "* Will not traverse across file system"  // 176
#define MSG_SEND_WATCH_DOG_PACKET "* will send WATCH_DOG packet"  // 177
#define MSG_CONTINUE_AT_OFFSET "%sContinue on file %s at offset %d"  // 178
#define MSG_FAILED_GETSOCKNAME "%sFailed in getsockname(%d), %s"  // 179
#define MSG_SKIP_SYSTEM "Skip file system %s"  // 180
#define MSG_FAILED_LSEEK "%sFailed in lseek(%d), %s"  // 181
#define MSG_CHILD_PROCESS_DIED "%sChild process (%d) died"  // 182
#define MSG_PROCESS_KILLED "%sProcess is killed"  // 183
#define MSG_FAILED_GETPEERNAME "%sFailed in getpeername(), %s"  // 184
#define MSG_USAGE_HEAD "Usage:\n  %s [options]\n"  // 185
#define MSG_JAN "Jan"  // 186
#define MSG_FEB "Feb"  // 187
#define MSG_MAR "Mar"  // 188
#define MSG_APR "Apr"  // 189
#define MSG_MAY "May"  // 190
#define MSG_JUN "Jun"  // 191
#define MSG_JUL "Jul"  // 192
#define MSG_AUG "Aug"  // 193
#define MSG_SEP "Sep"  // 194
#define MSG_OCT "Oct"  // 195
#define MSG_NOV "Nov"  // 196
#define MSG_DEC "Dec"  // 197
