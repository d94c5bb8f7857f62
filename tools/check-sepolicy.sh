#!/usr/bin/env bash
# Checks the vendor SELinux policy in sepolicy/vendor without an Android tree: expands its .te
# files with m4 over stand-ins of the platform macros and types it uses, compiles the result with
# checkpolicy (MLS, as on a device; neverallow rules enforced, genfs_contexts included), and
# checks that every type named in file_contexts and property_contexts is declared.
#
# The stand-ins repeat the platform's definitions where this policy depends on them, including
# the Treble rules that shape it (no system executable but the netutils wrappers for a vendor
# domain; no vendor socket for a core domain). They are not the platform policy: the device build
# remains the real check. A sample client domain exercises mlbd_client.
#
# Usage: tools/check-sepolicy.sh   (installs checkpolicy and m4 with apt-get when missing)
set -euo pipefail
cd "$(dirname "$0")/.."
dir=sepolicy/vendor

missing=()
for p in checkpolicy m4; do command -v "$p" >/dev/null || missing+=("$p"); done
if [ ${#missing[@]} -gt 0 ]; then
    SUDO=""
    [ "$(id -u)" -eq 0 ] || SUDO="sudo"
    $SUDO apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Platform macros, as the platform defines them (permission sets cut to the classes used here).
cat >"$work/macros" <<'EOF'
define(`r_dir_perms', `{ open getattr read search ioctl lock watch watch_reads }')
define(`r_file_perms', `{ getattr open read ioctl lock map watch watch_reads }')
define(`w_file_perms', `{ open append write lock map }')
define(`rw_file_perms', `{ r_file_perms w_file_perms }')
define(`create_socket_perms_no_ioctl', `{ create read getattr write setattr lock append bind connect getopt setopt shutdown map }')
define(`r_dir_file', `
allow $1 $2:dir r_dir_perms;
allow $1 $2:{ file lnk_file } r_file_perms;')
define(`domain_trans', `
allow $1 $2:file { getattr open read execute map };
allow $1 $3:process transition;
allow $3 $2:file { entrypoint open read execute getattr map };
allow $3 $1:process sigchld;
dontaudit $1 $3:process noatsecure;
allow $1 $3:process { siginh rlimitinh };')
define(`domain_auto_trans', `
domain_trans($1,$2,$3)
type_transition $1 $2:process $3;')
define(`init_daemon_domain', `domain_auto_trans(init, $1_exec, $1)')
define(`net_domain', `typeattribute $1 netdomain;')
define(`unix_socket_connect', `
allow $1 $2_socket:sock_file write;
allow $1 $3:unix_stream_socket connectto;')
define(`get_prop', `allow $1 $2:file { getattr open read map };')
define(`vendor_restricted_prop', `
type $1, property_type, vendor_property_type, vendor_restricted_property_type;
neverallow { coredomain -init } $1:property_service set;')
define(`userdebug_or_eng', `$1')
define(`SIOCGIFINDEX', `0x8933')
EOF

# Classes, MLS and the platform's types and rules that the policy meets.
cat >"$work/head.conf" <<'EOF'
class security
class process
class fd
class capability
class filesystem
class file
class dir
class lnk_file
class sock_file
class fifo_file
class unix_stream_socket
class tcp_socket
class netlink_tcpdiag_socket
class netlink_generic_socket
class property_service
sid kernel
common file { ioctl read write create getattr setattr lock relabelfrom relabelto append map unlink link rename execute quotaon mounton audit_access open execmod watch watch_mount watch_sb watch_with_perm watch_reads }
common socket { ioctl read write create getattr setattr lock relabelfrom relabelto append map bind connect listen accept getopt setopt shutdown recvfrom sendto name_bind }
class security { compute_av }
class process { fork transition sigchld sigkill sigstop signull signal ptrace getsched setsched getsession getpgid setpgid getcap setcap share getattr setexec setfscreate noatsecure siginh setrlimit rlimitinh dyntransition setcurrent execmem execstack execheap setkeycreate setsockcreate getrlimit }
class fd { use }
class capability { chown dac_override dac_read_search fowner fsetid kill setgid setuid setpcap linux_immutable net_bind_service net_broadcast net_admin net_raw ipc_lock ipc_owner sys_module sys_rawio sys_chroot sys_ptrace sys_pacct sys_admin sys_boot sys_nice sys_resource sys_time sys_tty_config mknod lease audit_write audit_control setfcap }
class filesystem { mount remount unmount getattr relabelfrom relabelto associate quotamod quotaget watch }
class file inherits file { execute_no_trans entrypoint }
class dir inherits file { add_name remove_name reparent search rmdir }
class lnk_file inherits file
class sock_file inherits file
class fifo_file inherits file
class unix_stream_socket inherits socket { connectto }
class tcp_socket inherits socket { node_bind name_connect }
class netlink_tcpdiag_socket inherits socket { nlmsg_read nlmsg_write }
class netlink_generic_socket inherits socket
class property_service { set }
sensitivity s0;
dominance { s0 }
category c0;
level s0:c0;
mlsconstrain process transition ( l1 eq l2 );
attribute domain;
attribute coredomain;
attribute netdomain;
attribute file_type;
attribute exec_type;
attribute vendor_file_type;
attribute system_file_type;
attribute fs_type;
attribute proc_type;
attribute property_type;
attribute vendor_property_type;
attribute vendor_restricted_property_type;
attribute dev_type;
attribute coredomain_socket;
type kernel, domain, coredomain;
type init, domain, coredomain;
type vendor_init, domain;
type su, domain, coredomain;
type netutils_wrapper, domain, coredomain;
type netutils_wrapper_exec, exec_type, system_file_type, file_type;
type system_file, system_file_type, file_type;
type vendor_configs_file, vendor_file_type, file_type;
type sample_client, domain;
role r;
role r types domain;
EOF

# The sample client, and the Treble rules restated from the platform.
cat >"$work/tail.conf" <<'EOF'
typeattribute sample_client mlbd_client;
neverallow { domain -coredomain -vendor_init } { system_file_type -netutils_wrapper_exec }:file { entrypoint execute execute_no_trans };
neverallow { coredomain -init } { file_type dev_type -coredomain_socket }:sock_file ~{ append getattr ioctl read };
neverallow { coredomain -init -su } { domain -coredomain }:unix_stream_socket connectto;
user u roles { r } level s0 range s0 - s0:c0;
sid kernel u:r:kernel:s0
EOF

start=$EPOCHREALTIME
cat "$work/head.conf" "$dir"/*.te "$work/tail.conf" "$dir/genfs_contexts" |
    m4 -s "$work/macros" - >"$work/policy.conf"
if ! checkpolicy -M -c 30 -o "$work/policy.bin" "$work/policy.conf" >"$work/log" 2>&1; then
    trap - EXIT
    cat "$work/log" >&2
    echo "check-sepolicy: checkpolicy failed; the expanded policy is $work/policy.conf" >&2
    exit 1
fi

# Every context in file_contexts and property_contexts names a declared type.
bad=0
while read -r type; do
    grep -Eq "^type ${type}[,;]" "$work/policy.conf" || { echo "undeclared type: $type" >&2; bad=1; }
done < <(cat "$dir/file_contexts" "$dir/property_contexts" | grep -v '^#' |
         grep -o 'u:object_r:[a-z0-9_]*:s0' | cut -d: -f3 | sort -u)
[ $bad -eq 0 ] || exit 1
echo "check-sepolicy: OK ($(awk -v a="$start" -v b="$EPOCHREALTIME" 'BEGIN{printf "%.2f", b-a}') s)"
