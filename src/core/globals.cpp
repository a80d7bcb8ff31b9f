// The process-wide state of the library, exported under its own names.
#include "vrixdb.h"

pthread_mutex_t *g_pVideoSqlMutex[VRIX_VIDEO_CHANNELS + 1];
pthread_mutex_t *g_pAudioSqlMutex;
pthread_mutex_t *g_pDateSqlMutex;
pthread_mutex_t *g_pEventSqlMutex;

int g_iSubmitMq = -1;
int g_iRmMq = -1;
int g_iRmAckMq = -1;
int g_iVrixDbSendMq = -1;
pthread_t g_ThreadFd;

int g_iDbSubmitThreadStop;
int g_iDbSubmitThreadStopAck;
int g_iBackuping;
int g_iStopBackup;
int g_iStopBackupAck;

RecContext *g_pVrixDbRec;
struct timezone g_TimeZone;
unsigned char g_VrixBackup[4096];

int g_iCommit[VRIX_COMMIT_SCALES] = {0, 5, 10, 0, 0, 0, 0, 0, 0, 2, 0};

NotifyMessage g_RecMsg;
NotifyMessage g_IdeErrMsg;
NotifyMessage g_RmMsg;
