#!/bin/bash
# Packs what the machine boots: a small system out of the sysroot, and the programs of one build.
# usage: initramfs.sh SYSROOT BUILD_DIR PLAN_DIR OUTPUT
#   PLAN_DIR holds the files that tell the machine what to do (see init); they end up in /vll.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
sysroot=$1 build=$2 plan=$3 output=$4
triplet=arm-linux-gnueabihf
# In the order in which they must be inserted; the first ten make /dev/ttyACM0 with /dev/ttyGS0 as its peer.
modules=(usbcore configfs udc-core dummy_hcd libcomposite u_serial usb_f_acm usb_f_serial cdc-acm g_serial overlay)

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

pack_system() { # ROOT
    local root=$1 module path
    mkdir -p "$root"/{bin,sbin,lib/modules,usr/bin,usr/sbin,"usr/lib/$triplet",usr/share,etc,dev,proc,sys,root,run,tmp}
    mkdir -p "$root"/{home,media,mnt,opt,srv,var/log,var/tmp,var/run,usr/local,vll}
    # Programs of their own where tests copy or rename them; busybox adds the rest as links.
    cp -P "$sysroot"/bin/{busybox,dash,sh,cat,chmod,cp,date,dd,echo,false,ln,ls,mkdir,mv} "$root/bin/"
    cp -P "$sysroot"/bin/{rm,rmdir,sleep,stty,sync,touch,true} "$root/bin/"
    cp -P "$sysroot"/usr/bin/{env,head,id,printf,stat,tail,test,timeout,tr,truncate,tty,wc} "$root/usr/bin/"
    cp -a "$sysroot/lib/$triplet" "$root/lib/"
    cp -P "$sysroot/lib/ld-linux-armhf.so.3" "$root/lib/"
    cp -P "$sysroot/usr/lib/$triplet"/{libstdc++,libacl,libattr,libpcre2-8}.so.* "$root/usr/lib/$triplet/"
    cp -a "$sysroot/usr/share/zoneinfo" "$root/usr/share/"
    rm -rf "$root"/usr/share/zoneinfo/{posix,right}
    for module in "${modules[@]}"; do
        path=$(find "$sysroot/lib/modules" -name "$module.ko" -print -quit)
        if [ -z "$path" ]; then
            echo "initramfs.sh: the kernel package has no module $module" >&2
            return 1
        fi
        cp "$path" "$root/lib/modules/"
        echo "$module" >>"$root/lib/modules/order"
    done
    ln -s /usr/share/zoneinfo/Etc/UTC "$root/etc/localtime"
    echo Etc/UTC >"$root/etc/timezone"
    echo target >"$root/etc/hostname"
    printf '127.0.0.1 localhost target\n::1 localhost\n' >"$root/etc/hosts"
    printf 'passwd: files\ngroup: files\nshadow: files\nhosts: files\n' >"$root/etc/nsswitch.conf"
    printf 'root:x:0:0:root:/root:/bin/sh\nnobody:x:65534:65534:nobody:/nonexistent:/bin/false\n' >"$root/etc/passwd"
    printf 'root:x:0:\ntty:x:5:\nnogroup:x:65534:\n' >"$root/etc/group"
    printf 'root:*:19000:0:99999:7:::\nnobody:*:19000:0:99999:7:::\n' >"$root/etc/shadow"
    chmod 600 "$root/etc/shadow"
    cp "$here/init" "$here/run-program" "$root/"
    chmod 755 "$root/init" "$root/run-program"
}

strip_into() { # DIR FILE
    "$triplet-strip" --strip-debug -o "$1/${2##*/}" "$2" 2>/dev/null || cp "$2" "$1/" # a script
}

# The programs lie as in the build directory, without their debug information. The library is found in the
# loader's own directories, as on a product.
pack_build() { # ROOT
    local root=$1 directory file
    for directory in tests examples tools; do
        [ -d "$build/$directory" ] || continue
        (cd "$build" && find "$directory" -name CMakeFiles -prune -o -type f \( -perm -u=x -o -name '*.so' \) -print) |
            while IFS= read -r file; do
                mkdir -p "$root/vll/${file%/*}"
                strip_into "$root/vll/${file%/*}" "$build/$file"
            done
    done
    for file in "$build"/src/libvwincompat.so.*; do
        if [ -L "$file" ]; then
            cp -P "$file" "$root/usr/lib/$triplet/"
        elif [ -f "$file" ]; then
            strip_into "$root/usr/lib/$triplet" "$file"
        fi
    done
    cp -R "$here/programs" "$plan"/* "$root/vll/"
    chmod 755 "$root"/vll/programs/*
}

pack_system "$work/root"
pack_build "$work/root"
(cd "$work/root" && find . -mindepth 1 -print0 | sort -z | cpio --null --create --format=newc --owner=+0:+0 --quiet) >"$output"
