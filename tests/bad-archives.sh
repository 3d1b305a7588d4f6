# Makes archives that must be refused, each of them once a good one or meant to look like one.
head -c 300000 /dev/urandom >random
tar -czf good random
head -c 100000 good >truncated
tar -cJf damaged random
printf XXXXXXXX | dd of=damaged bs=1 seek=150000 conv=notrunc
echo random | cpio -o -H newc | head -c 5000 >cut
tar -cf empty -T /dev/null
: >nothing
mkfifo fifo
mkdir folder
echo x >one
ln one two
tar -cf hardlink one two
(cd folder && tar -Pcf ../dotdot ../one)
tar -cf header one levels
printf XXXX | dd of=header bs=1 seek=1025 conv=notrunc
echo file >file
