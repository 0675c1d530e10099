# Our own short forms of the platform's policy macros that sepolicy/ uses, enough for
# checkpolicy to see every type, class and permission our rules name. They grant what the
# platform's macros grant to the daemon's own domain; they are not the platform's text.
define(`r_file_perms', `{ getattr open read ioctl lock map }')
define(`x_file_perms', `{ getattr execute execute_no_trans map }')
define(`rx_file_perms', `{ r_file_perms x_file_perms }')
define(`w_file_perms', `{ open append write lock map }')
define(`rw_file_perms', `{ r_file_perms w_file_perms }')
define(`create_file_perms', `{ create rename setattr unlink rw_file_perms }')
define(`r_dir_perms', `{ open getattr read search ioctl lock }')
define(`rw_dir_perms', `{ r_dir_perms add_name write remove_name }')
define(`create_dir_perms', `{ create reparent rename rmdir setattr rw_dir_perms }')
define(`init_daemon_domain', `
type_transition init $1_exec:process $1;
allow init $1_exec:file rx_file_perms;
allow init $1:process transition;
allow $1 $1_exec:file { entrypoint r_file_perms };
')
define(`system_internal_prop', `
type $1, property_type, system_property_type, system_internal_property_type;
')
define(`get_prop', `
allow $1 $2:file { getattr open read map };
')
define(`unix_socket_connect', `
allow $1 $2_socket:sock_file write;
allow $1 $3:unix_stream_socket connectto;
')
define(`set_prop', `
unix_socket_connect($1, property, init)
allow $1 $2:property_service set;
get_prop($1, $2)
')
define(`binder_use', `
allow $1 binder_device:chr_file rw_file_perms;
allow $1 servicemanager:binder { call transfer };
')
define(`binder_call', `
allow $1 $2:binder { call transfer };
allow $2 $1:binder transfer;
allow $1 $2:fd use;
')
define(`read_logd', `
unix_socket_connect($1, logdr, logd)
')
