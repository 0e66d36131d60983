/* The fixed texts of the protocol's errors, warnings and events: they are
 * part of the protocol and are sent exactly so. */
#ifndef VELA_MESSAGES_H
#define VELA_MESSAGES_H

struct messages_s {
    const char* value_out_of_range;
    const char* syntax_invalid;
    const char* not_implemented;
    const char* wip;
    const char* invalid_pstate;
    const char* invalid_pstate_transition;
    const char* err_ov_plus;
    const char* wrn_ov_minus;
    const char* err_error;
    const char* err_suspend_not_allowed;
    const char* err_command_already_active;
    const char* err_no_axis_specified;
    const char* err_endswitch_timeout;
    const char* err_nodata_timeout;
    const char* err_no_driveunit;
    const char* err_timeout;
    const char* err_invalid_args_for_move;
    const char* err_axis_parameter_not_supported;
    const char* err_unknown_channel;
    const char* err_channel_not_readable;
    const char* err_channel_not_writable;
    const char* err_motor_dac_failed;
    const char* err_set_xref1_first;
    const char* err_w_scale_out_of_range;
    const char* err_w_offset_out_of_range;
    const char* err_inappropriate_calibration;
    const char* err_action_failed;
    const char* evt_battery_low;
    const char* evt_battery_critical;
    const char* evt_battery_good;
    const char* evt_charging_done;
    const char* evt_charging;
    const char* evt_batt_fault;
    const char* evt_on_battery;
    const char* evt_resumed_shutdown;
    const char* evt_resumed;
    const char* evt_start_pressed;
    const char* evt_start_released;
    const char* evt_start_via_opto;
    const char* evt_calibration_updated;
};

extern const struct messages_s msg;

#endif
