/*
 * boardprofile.h: the device profile (libboardprofile.so), as the common utility library sees
 * it. Strings handed back are owned by the platform and stay valid for the process's life.
 */
#ifndef BOARDPROFILE_H
#define BOARDPROFILE_H

#ifdef __cplusplus
extern "C" {
#endif

const char* GetSoftwareVersion(void);
const char* GetDeviceModel(void);
/* The device's partner id, 0 when it has none. */
int GetCustomizedPartner(void);
int IsPartnerSupportNativeAuth(void);
/* A numbered flag of the device profile, 0 or 1. */
int getDeviceConfigFlag(int flag);
/* Non-zero while a card is in the slot. */
int IsSDinserted(void);
/* The card's serial number as hexadecimal text, NULL when there is no card or it can't be read. */
const char* GetExternalCardSerialNumber(void);
/* Milliseconds since boot, monotonic. */
unsigned long long hw_boottime_ms(void);

#ifdef __cplusplus
}
#endif

#endif /* BOARDPROFILE_H */
