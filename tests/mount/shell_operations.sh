# The shell operations the mount must answer as a local folder does. Run in the folder under
# test; prints a transcript (listings, sizes, checksums, error messages) that the test
# compares between a plain folder and mounts.
set -u
exec 2>&1
mkdir -p src/lib/deep docs empty
for i in $(seq 1 30); do
  seq "$i" 3 600 >"src/lib/file$i.txt"
done
echo "header" >docs/readme.md
echo "appended line" >>docs/readme.md
seq 1 200000 >data.txt
printf 'MIDDLE' | dd of=data.txt bs=1 seek=70000 conv=notrunc status=none
truncate -s 500000 data.txt
truncate -s 900000 data.txt
head -c 300000 /dev/zero | tr '\0' 'z' >>data.txt
cp data.txt src/lib/deep/copy.txt
echo "new body" >docs/new.md
mv docs/new.md docs/readme.md
mv src/lib src/library
mv src/library/file1.txt src/library/file2.txt
rm src/library/file3.txt
rmdir empty
mkdir docs || true
rmdir src || true
cat missing.txt || true
rm missing.txt || true
mv missing.txt x.txt || true
touch -d '2020-01-02 03:04:05' docs/readme.md
stat -c 'mtime %Y %n' docs/readme.md
chmod a-w src/library/file4.txt
stat -c 'mode %A %n' src/library/file4.txt
chmod u+w src/library/file4.txt
echo "overwrite" >src/library/file5.txt
: >src/library/file6.txt
ls src/library | head -5
find . -type d | sort
find . -type f -exec stat -c 'size %s %n' {} + | sort
find . -type f -exec md5sum {} + | sort -k2
grep -rl MIDDLE . | sort
