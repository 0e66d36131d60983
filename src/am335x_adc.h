/* The processor's internal 12-bit ADC (IIO, reference 1.8 V): eight board
 * voltages behind resistor dividers, and the battery temperature from the
 * NTC pair. */
#ifndef VELA_AM335X_ADC_H
#define VELA_AM335X_ADC_H

#include <stdint.h>

#define VELA_ADC_CHANNELS 8

typedef struct adc_priv_s* adchnd_t;

/* All eight channels in channel order: volts at the divider inputs. */
struct vela_adc_s {
    float val[VELA_ADC_CHANNELS];
    const char* name[VELA_ADC_CHANNELS];
};

extern const char* const vela_adc_names[VELA_ADC_CHANNELS];

int am335x_adc_init(adchnd_t* hnd);
void am335x_adc_close(adchnd_t hnd);
int am335x_adc_read_single(adchnd_t hnd, uint8_t ch, float* val);
int am335x_adc_read(adchnd_t hnd, struct vela_adc_s* v);
/* Channel 0 (NTC) and channel 7 (NTC reference) voltages to degrees Celsius. */
int vela_battery_temp(float vntc, float vntcref, float* temp);

#endif
