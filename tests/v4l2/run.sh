# Runs in the virtual machine of scripts/test-v4l2.sh: "ok NAME" or "not ok NAME" for each case.
cd /data
report() { # NAME: of what has just ended
    if [ $? = 0 ]; then echo "ok $1"; else echo "not ok $1" && sed 's/^/    /' /tmp/log; fi
}
run() { vxrun --stats --log 0 --stall "${stall:-30}" "$@" >/tmp/log 2>&1; }
has() { grep -q "$1" /tmp/log; }

# The codec is deterministic: its pictures are the same everywhere.
isRight() { has '^44009f46d889b162391f02a10d0d8490$' && has ' frames=16 ' && ! has copied=; }
for source in heap udmabuf; do
    export VX_DMABUF_SOURCE=$source
    run transcode.json
    isRight
    report "$source: device to device without a copy"
done
sed s,transform/passthrough,test/fences, transcode.json >fences.json
run fences.json --nodes /data/libv4l2_fences.so
isRight
report "pictures with fences that have not fired"

gop=0x009909cb # V4L2_CID_MPEG_VIDEO_GOP_SIZE
for clip in clip large; do
    run encode.json --set reader.file=$clip.y4m --set writer.file=/tmp/$clip.ivf --set encoder.controls=$gop=4
    has ' frames=16 '
    report "$clip: encoded"
    run decode.json --set reader.file=/tmp/$clip.ivf --set writer.file=/tmp/$clip.yuv
    has ' frames=16 '
    report "$clip: decoded"
done
tail -c +33 /tmp/large.ivf | cat /tmp/clip.ivf - >/tmp/both.ivf
tail -c +33 /tmp/clip.ivf | cat /tmp/both.ivf - >/tmp/change.ivf
run decode.json --set reader.file=/tmp/change.ivf --set writer.file=/tmp/change.yuv
cat /tmp/clip.yuv /tmp/large.yuv /tmp/clip.yuv | cmp - /tmp/change.yuv
report "the size changes twice"

entry() { # KEY FRAME: decode.json with that entry of the decoder
    sed "s,\"codec/v4l2\",&\, \"entries\": [{ \"frame\": $2\, \"kind\": \"command\"\, \"key\": \"$1\"\, \"value\": \"1\" }]," \
        decode.json >$1.json
}
entry drain 8
run drain.json --set reader.file=/tmp/clip.ivf --set writer.file=/tmp/drain.yuv
has ' frames=16 ' && cmp /tmp/clip.yuv /tmp/drain.yuv
report "drained before a key frame, nothing changes"
entry flush 8
run flush.json --set reader.file=/tmp/clip.ivf --set writer.file=/tmp/flush.yuv
frames=$(($(wc -c </tmp/flush.yuv) / 345600))
[ $frames -ge 8 ] && [ $frames -le 16 ] &&
    [ "$(tail -c $((8 * 345600)) /tmp/flush.yuv | md5sum)" = "$(tail -c $((8 * 345600)) /tmp/clip.yuv | md5sum)" ]
report "flushed before a key frame, the rest is right"

entry flush 32
run flush.json --set reader.file=/tmp/change.ivf --set writer.file=/tmp/seek.yuv
[ "$(tail -c $((16 * 345600)) /tmp/seek.yuv | md5sum)" = "$(md5sum </tmp/clip.yuv)" ]
report "a seek to pictures of another size"

cp /tmp/clip.ivf /tmp/damaged.ivf
dd if=/dev/zero of=/tmp/damaged.ivf bs=1 seek=30000 count=5000 conv=notrunc 2>/dev/null
run decode.json --set reader.file=/tmp/damaged.ivf --set writer.file=/tmp/x.yuv
has '^verdict: ' && ! has STALL && ! cmp -s /tmp/clip.yuv /tmp/x.yuv
report "damaged: it ends, and other pictures come out"
{ head -c 32 /tmp/clip.ivf; printf '\20\0\0\0\0\0\0\0\0\0\0\0'; head -c 16 /dev/urandom; } >/tmp/rubbish.ivf
run decode.json --set reader.file=/tmp/rubbish.ivf --set writer.file=/tmp/x.yuv
has '^verdict: INFO_VALIDATION_FAIL ' && has 'no frame in the stream'
report "rubbish only: no picture, and it ends"

for device in nosuch /dev/video9; do
    run decode.json --set reader.file=/tmp/clip.ivf --set writer.file=/tmp/x.yuv --set decoder.device=$device
    has "^verdict: NOT_SUPPORTED " && has "no V4L2 decoder of fwht"
    report "no device $device"
done

run encode.json --set reader.file=clip.y4m --set writer.file=/tmp/x.ivf --set encoder.format=nv12
has "config 'format': an encoder has none"
report "an encoder has nothing of a decoder"

# Of a device that fails, the line names the device or the node; and it does for the next run.
decodesAll() {
    run decode.json --set reader.file=/tmp/clip.ivf --set writer.file=/tmp/x.yuv
    has ' frames=16 ' && cmp /tmp/clip.yuv /tmp/x.yuv
}
until_decoding() { # COMMAND...: while pictures of a slow run come
    rm -f /tmp/x.yuv*
    run decode.json --set reader.file=/tmp/clip.ivf --set writer.file=/tmp/x.yuv --set pace.ms=500 &
    until [ -s /tmp/x.yuv.part ] || ! kill -0 $!; do :; done
    "$@"
    wait $!
}
until_decoding killall -INT vxrun
has '^verdict: SIGINT ' && decodesAll
report "closed in mid-run"
export LD_PRELOAD=/data/libv4l2_faults.so
VIDEO_FAULT=busy run decode.json --set reader.file=/tmp/clip.ivf --set writer.file=/tmp/x.yuv
has '^verdict: NOT_SUPPORTED ' && has '/dev/video1: Device or resource busy'
report "busy"
stall=3 VIDEO_FAULT=silent run decode.json --set reader.file=/tmp/clip.ivf --set writer.file=/tmp/x.yuv \
    --set reader.slots=8 --set decoder.slots=8 # the fault comes before all is in the device
has '^verdict: STALL' && has 'not finished: reader, decoder (waits for /dev/video1), '
report "a device that stops answering"
unset LD_PRELOAD
driver=/sys/bus/platform/drivers/vicodec
unplug() { echo vicodec.0 >$driver/unbind; }
until_decoding unplug
has '/dev/video1: .*No such device'
report "unplugged"
echo vicodec.0 >$driver/bind
decodesAll
report "plugged in again"

rmmod vicodec
insmod /modules/vicodec.ko multiplanar=1
run transcode.json
isRight && decodesAll
report "multi-planar"
echo "v4l2: all ran"
